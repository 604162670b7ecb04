#include "Tarvo/FileLock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>

#include "util/SystemTestSupport.h"

namespace Tarvo {
namespace {

using Test::assertMessage;
using Test::TraceRecorder;

TEST(FileLockTest, LockFilePathIsBuiltWithoutTouchingTheDisk) {
  TraceRecorder trace;
  EXPECT_EQ(FileLock(trace, "", "x.lock").file(), "x.lock");
  EXPECT_EQ(FileLock(trace, "/nonexistent/a/", "x").file(), "/nonexistent/a//x");
  EXPECT_NE(::access("/nonexistent", F_OK), 0);
  std::string message = assertMessage([&] { FileLock(trace, "/tmp", "a/b"); });
  EXPECT_TRUE(message.starts_with("FileLock:FileLock:")) << message;
  EXPECT_TRUE(message.ends_with("Tarvo::FileLock::FileLock() unexpected '/' in filename: a/b"));
}

TEST(FileLockTest, SecondLockInOneProcessIsRefusedUntilRelease) {
  Tarvo::Test::TempDir dir;
  TraceRecorder trace;
  mode_t oldMask = ::umask(022);
  int fdsBefore = Tarvo::Test::settledFdCount();
  std::string lockDir = dir.file("x/y");
  {
    FileLock first(trace, lockDir, "role.lock");
    FileLock second(trace, lockDir, "role.lock");
    int lowestFree = ::dup(0);
    ::close(lowestFree);
    ASSERT_TRUE(first.lock());
    EXPECT_EQ(::fcntl(lowestFree, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);  // the lock's descriptor
    struct stat st;
    ASSERT_EQ(::stat(first.file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    EXPECT_FALSE(second.lock());
    EXPECT_TRUE(
        trace.has(1, "FileLock::lock() error: conflicting lock held on file:" + second.file()));
    EXPECT_FALSE(first.lock());  // a second descriptor of the holder conflicts too
    first.release();
    EXPECT_EQ(::access(first.file().c_str(), F_OK), 0);
    EXPECT_TRUE(second.lock());
  }
  FileLock third(trace, lockDir, "role.lock");  // the destructor released `second`
  EXPECT_TRUE(third.lock());
  third.release();
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
  ::umask(oldMask);
}

TEST(FileLockTest, LockExcludesOtherProcessesUntilTheHolderLetsGo) {
  Tarvo::Test::TempDir dir;
  TraceRecorder trace;
  auto lockInChild = [&] {
    return Tarvo::Test::runInChild([&] { return FileLock(trace, dir.path(), "role.lock").lock(); });
  };
  FileLock mine(trace, dir.path(), "role.lock");
  ASSERT_TRUE(mine.lock());
  EXPECT_EQ(lockInChild().exitCode, 0);
  mine.release();
  EXPECT_EQ(lockInChild().exitCode, 1);

  // A holder that exits without releasing drops the lock with its descriptor.
  std::optional<FileLock> held;
  Tarvo::Test::WaitingChild holder(
      [&] { return held.emplace(trace, dir.path(), "role.lock").lock(); });
  ASSERT_TRUE(holder.setupOk());
  EXPECT_FALSE(mine.lock());
  holder.release();
  EXPECT_TRUE(mine.lock());
}

TEST(FileLockTest, ReleaseRefusesWhenNotHeldOrFromAForkedChild) {
  Tarvo::Test::TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::settledFdCount();
  std::optional<FileLock> lock;
  lock.emplace(trace, dir.path(), "role.lock");
  std::string notHeld =
      "FileLock::release() attempting to release a lock that is not currently held. File:" +
      lock->file();
  ASSERT_TRUE(lock->lock());
  lock->release();
  std::string message = assertMessage([&] { lock->release(); });
  EXPECT_TRUE(message.starts_with("FileLock:release:")) << message;
  EXPECT_TRUE(message.ends_with(notHeld)) << message;

  ASSERT_TRUE(lock->lock());
  std::string expected = "FileLock::release() called from child process:";
  std::string owner = " of owner pid:" + std::to_string(::getpid());
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([&] {
    return assertMessage([&] { lock->release(); })
        .ends_with(expected + std::to_string(::getpid()) + owner);
  });
  EXPECT_EQ(child.exitCode, 1);
  // A child destroying its copy of the lock closes its own descriptor only.
  child = Tarvo::Test::runInChild([&] {
    lock.reset();
    return FileLock(trace, dir.path(), "role.lock").lock();
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  FileLock probe(trace, dir.path(), "role.lock");
  EXPECT_FALSE(probe.lock());

  // closeFd drops the lock without an unlock; release then finds nothing held.
  lock->closeFd();
  lock->closeFd();
  EXPECT_TRUE(assertMessage([&] { lock->release(); }).ends_with(notHeld));
  EXPECT_TRUE(probe.lock());
  probe.release();
  lock.reset();
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(FileLockTest, UnusableLockPathsAnswerFalseOrThrow) {
  Tarvo::Test::TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::settledFdCount();
  ASSERT_EQ(::mkdir(dir.file("taken.lock").c_str(), 0700), 0);
  EXPECT_FALSE(FileLock(trace, dir.path(), "taken.lock").lock());
  EXPECT_TRUE(trace.has(1, "FileLock::lock() error: could not open lock file:" +
                               dir.file("taken.lock") + " Is a directory"));

  ASSERT_EQ(::close(::open(dir.file("plain").c_str(), O_CREAT | O_WRONLY, 0600)), 0);
  FileLock underFile(trace, dir.file("plain/sub"), "x.lock");
  std::string message = assertMessage([&] { underFile.lock(); });
  EXPECT_TRUE(message.starts_with("FileLock:lock:")) << message;
  EXPECT_TRUE(message.ends_with("FileLock::lock() unexpected mkpath() error " +
                                dir.file("plain/sub") + ": Not a directory"));
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

}  // namespace
}  // namespace Tarvo
