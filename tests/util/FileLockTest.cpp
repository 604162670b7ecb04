#include "Tarvo/FileLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <optional>

#include "Tarvo/DirNode.h"
#include "Tarvo/Exception.h"
#include "common/TestSupport.h"
#include "util/TraceRecorder.h"
#include "util/WaitingChild.h"

namespace Tarvo {
namespace {

using Test::TempDir;
using Test::TraceRecorder;
using Test::WaitingChild;

std::string assertMessage(const std::function<void()>& body) {
  try {
    body();
  } catch (const AssertException& e) {
    return e.message();
  }
  return "no exception";
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The descriptor flags of this process's descriptor on `path`; -1 when it has none.
int descriptorFlagsFor(const std::string& path) {
  TraceRecorder quiet(0);
  DirNode fds(quiet, "/proc/self/fd");
  while (struct dirent* entry = fds.readEntry()) {
    char target[PATH_MAX] = {};
    std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (::readlink(link.c_str(), target, sizeof target - 1) > 0 && path == target) {
      return ::fcntl(std::stoi(entry->d_name), F_GETFD);
    }
  }
  return -1;
}

TEST(FileLockTest, LockFilePathJoinsDirectoryAndNameWithoutTouchingTheDisk) {
  TraceRecorder trace;
  EXPECT_EQ(FileLock(trace, "", "x.lock").file(), "x.lock");
  EXPECT_EQ(FileLock(trace, "/nonexistent/a/", "x").file(), "/nonexistent/a//x");
  EXPECT_EQ(::access("/nonexistent", F_OK), -1);

  std::string message = assertMessage([&] { FileLock(trace, "/tmp", "a/b"); });
  EXPECT_TRUE(contains(message, "FileLock:FileLock:")) << message;
  EXPECT_TRUE(contains(message, "Tarvo::FileLock::FileLock() unexpected '/' in filename: a/b"))
      << message;
}

TEST(FileLockTest, SecondLockOnTheSamePathInOneProcessWaitsForRelease) {
  TempDir dir;
  TraceRecorder trace;
  mode_t oldMask = ::umask(022);
  int fdsBefore = Tarvo::Test::openFdCount();
  std::string lockDir = dir.file("x/y");
  {
    FileLock first(trace, lockDir, "role.lock");
    FileLock second(trace, lockDir, "role.lock");
    ASSERT_TRUE(first.lock());
    EXPECT_TRUE(trace.has(5, "FileLock::lock() acquired lock on file:" + first.file()));
    struct stat st;
    ASSERT_EQ(::stat(first.file().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_NE(descriptorFlagsFor(first.file()) & FD_CLOEXEC, 0);

    EXPECT_FALSE(second.lock());
    EXPECT_TRUE(
        trace.has(1, "FileLock::lock() error: conflicting lock held on file:" + second.file()));
    // Locking again while held opens a second descriptor, which conflicts too.
    EXPECT_FALSE(first.lock());

    first.release();
    EXPECT_EQ(first.file(), lockDir + "/role.lock");
    EXPECT_EQ(::access(first.file().c_str(), F_OK), 0);
    EXPECT_TRUE(second.lock());
    EXPECT_FALSE(first.lock());
  }
  // The destructor released `second`.
  FileLock third(trace, lockDir, "role.lock");
  EXPECT_TRUE(third.lock());
  third.release();
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
  ::umask(oldMask);
}

TEST(FileLockTest, LockExcludesOtherProcessesUntilTheHolderLetsGo) {
  TempDir dir;
  TraceRecorder trace;
  auto tryInChild = [&] {
    return Tarvo::Test::runInChild([&] {
      FileLock other(trace, dir.path(), "role.lock");
      return other.lock() ? 0 : 1;
    });
  };

  {
    FileLock mine(trace, dir.path(), "role.lock");
    ASSERT_TRUE(mine.lock());
    EXPECT_EQ(tryInChild().exitCode, 1);
    mine.release();
    EXPECT_EQ(tryInChild().exitCode, 0);
  }

  // A holder that exits without releasing drops the lock with its descriptor.
  std::optional<FileLock> held;
  WaitingChild holder([&] {
    held.emplace(trace, dir.path(), "role.lock");
    return held->lock();
  });
  ASSERT_TRUE(holder.setupOk());
  FileLock mine(trace, dir.path(), "role.lock");
  EXPECT_FALSE(mine.lock());
  holder.release();
  EXPECT_TRUE(mine.lock());
}

TEST(FileLockTest, ReleaseRefusesWhenNotHeldOrFromAForkedChild) {
  TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::openFdCount();
  std::optional<FileLock> lock;
  lock.emplace(trace, dir.path(), "role.lock");
  std::string notHeld =
      "FileLock::release() attempting to release a lock that is not currently held. File:" +
      lock->file();

  EXPECT_TRUE(contains(assertMessage([&] { lock->release(); }), notHeld));
  ASSERT_TRUE(lock->lock());
  lock->release();
  std::string message = assertMessage([&] { lock->release(); });
  EXPECT_TRUE(contains(message, "FileLock:release:")) << message;
  EXPECT_TRUE(contains(message, notHeld)) << message;

  ASSERT_TRUE(lock->lock());
  std::string parent = std::to_string(::getpid());
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([&] {
    std::string refused = assertMessage([&] { lock->release(); });
    std::string expected =
        "FileLock::release() called from child process:" + std::to_string(::getpid()) +
        " of owner pid:" + parent;
    return contains(refused, expected) ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0);
  // A child that destroys its copy of the held lock closes only its own descriptor.
  child = Tarvo::Test::runInChild([&] {
    lock.reset();
    FileLock probe(trace, dir.path(), "role.lock");
    return probe.lock() ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  FileLock probe(trace, dir.path(), "role.lock");
  EXPECT_FALSE(probe.lock());

  // closeFd drops the lock without an unlock; release then finds nothing held.
  lock->closeFd();
  lock->closeFd();
  EXPECT_TRUE(trace.has(5, "FileLock::closeFd() no active fd: nothing to do"));
  EXPECT_TRUE(contains(assertMessage([&] { lock->release(); }), notHeld));
  EXPECT_TRUE(probe.lock());
  probe.release();
  lock.reset();
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(FileLockTest, UnusableLockPathsAnswerFalseOrThrow) {
  TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::openFdCount();

  ASSERT_EQ(::mkdir(dir.file("taken.lock").c_str(), 0700), 0);
  FileLock isDirectory(trace, dir.path(), "taken.lock");
  EXPECT_FALSE(isDirectory.lock());
  EXPECT_TRUE(trace.has(1, "FileLock::lock() error: could not open lock file:" +
                               dir.file("taken.lock") + " Is a directory"));

  ASSERT_EQ(::close(::open(dir.file("plain").c_str(), O_CREAT | O_WRONLY, 0600)), 0);
  FileLock underFile(trace, dir.file("plain/sub"), "x.lock");
  std::string message = assertMessage([&] { underFile.lock(); });
  EXPECT_TRUE(contains(message, "FileLock:lock:")) << message;
  EXPECT_TRUE(contains(message, "FileLock::lock() unexpected mkpath() error " +
                                    dir.file("plain/sub") + ": Not a directory"))
      << message;
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

}  // namespace
}  // namespace Tarvo
