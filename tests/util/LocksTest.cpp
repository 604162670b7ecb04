#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>
#include <thread>

#include "Tarvo/FileLock.h"
#include "Tarvo/Locking.h"
#include "util/SystemTestSupport.h"

namespace Tarvo {
namespace {

using Test::thrownMessage;
using Test::TraceRecorder;

// Whether `message` is that of a check in `where` ("File:function:") ending in `text`.
bool isCheck(const std::string& message, const std::string& where, const std::string& text) {
  return message.starts_with(where) && message.ends_with(text);
}

TEST(FileLockTest, PathIsBuiltAtConstructionAndUnusablePathsFailAsTold) {
  Tarvo::Test::TempDir dir;
  TraceRecorder trace;
  EXPECT_EQ(FileLock(trace, "", "x.lock").file(), "x.lock");
  EXPECT_EQ(FileLock(trace, "/nonexistent/a/", "x").file(), "/nonexistent/a//x");
  EXPECT_TRUE(isCheck(thrownMessage([&] { FileLock(trace, "/tmp", "a/b"); }), "FileLock:FileLock:",
                      "Tarvo::FileLock::FileLock() unexpected '/' in filename: a/b"));

  int fdsBefore = Tarvo::Test::settledFdCount();
  ASSERT_EQ(::mkdir(dir.file("taken.lock").c_str(), 0700), 0);
  EXPECT_FALSE(FileLock(trace, dir.path(), "taken.lock").lock());
  ASSERT_EQ(::close(::open(dir.file("plain").c_str(), O_CREAT | O_WRONLY, 0600)), 0);
  EXPECT_TRUE(isCheck(
      thrownMessage([&] { FileLock(trace, dir.file("plain/sub"), "x").lock(); }), "FileLock:lock:",
      "FileLock::lock() unexpected mkpath() error " + dir.file("plain/sub") + ": Not a directory"));
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(FileLockTest, OneHolderAtATimeInThisProcessOrAnother) {
  Tarvo::Test::TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::settledFdCount();
  std::string lockDir = dir.file("x/y");
  auto lockInChild = [&] {
    return Tarvo::Test::runInChild([&] { return FileLock(trace, lockDir, "role.lock").lock(); })
        .exitCode;
  };
  {
    FileLock first(trace, lockDir, "role.lock");
    FileLock second(trace, lockDir, "role.lock");
    int lowestFree = ::dup(0);
    ::close(lowestFree);
    ASSERT_TRUE(first.lock());
    EXPECT_EQ(::fcntl(lowestFree, F_GETFD), FD_CLOEXEC);  // the lock's descriptor
    EXPECT_FALSE(second.lock());
    EXPECT_TRUE(
        trace.has(1, "FileLock::lock() error: conflicting lock held on file:" + second.file()));
    EXPECT_EQ(lockInChild(), 0);
    first.release();
    EXPECT_EQ(::access(first.file().c_str(), F_OK), 0);
    EXPECT_TRUE(second.lock());
  }
  EXPECT_EQ(lockInChild(), 1);  // the destructor released `second`
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
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
  EXPECT_TRUE(isCheck(thrownMessage([&] { lock->release(); }), "FileLock:release:", notHeld));

  ASSERT_TRUE(lock->lock());
  std::string owner = " of owner pid:" + std::to_string(::getpid());
  EXPECT_EQ(Tarvo::Test::runInChild([&] {
              return thrownMessage([&] { lock->release(); })
                  .ends_with("FileLock::release() called from child process:" +
                             std::to_string(::getpid()) + owner);
            }).exitCode,
            1);
  // A child destroying its copy of the lock closes its own descriptor only.
  EXPECT_EQ(Tarvo::Test::runInChild([&] {
              lock.reset();
              return FileLock(trace, dir.path(), "role.lock").lock();
            }).exitCode,
            0);
  FileLock probe(trace, dir.path(), "role.lock");
  EXPECT_FALSE(probe.lock());

  // closeFd drops the lock without an unlock; release then finds nothing held.
  lock->closeFd();
  lock->closeFd();
  EXPECT_TRUE(thrownMessage([&] { lock->release(); }).ends_with(notHeld));
  EXPECT_TRUE(probe.lock());
  probe.release();
  lock.reset();
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(LockingTest, OnlyTheHoldingThreadOwnsAndMayUnlock) {
  Locking::Lock lock;
  auto unlockRefused = [&] {
    return isCheck(
        thrownMessage([&] { lock.unlock(); }), "Locking:unlock:",
        "Tarvo::Locking::unlock() attempting to release a lock that is not currently held");
  };
  EXPECT_TRUE(unlockRefused());
  {
    Locking::ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  std::thread([&] {
    EXPECT_TRUE(!lock.owns_lock() && !lock.try_lock() && unlockRefused());
  }).join();
  EXPECT_TRUE(lock.owns_lock());  // neither the guard nor the refused unlock released it
  lock.unlock();
  {
    Locking::ConditionalGuard guard(lock);
    lock.unlock();  // the guard then finds nothing to release
  }
  { Locking::ConditionalGuard guard(lock); }
  EXPECT_TRUE(!lock.owns_lock() && lock.try_lock());
  lock.unlock();
}

}  // namespace
}  // namespace Tarvo
