#include "Tarvo/Locking.h"

#include <gtest/gtest.h>

#include <thread>

#include "util/SystemTestSupport.h"

namespace Tarvo::Locking {
namespace {

// Whether unlock() refuses, from the calling thread, with the library's message.
bool unlockRefused(Lock& lock) {
  std::string message = Test::assertMessage([&] { lock.unlock(); });
  return message.starts_with("Locking:unlock:") &&
         message.ends_with(
             "Tarvo::Locking::unlock() attempting to release a lock that is not currently held");
}

TEST(LockingTest, OnlyTheHoldingThreadOwnsAndMayUnlock) {
  Lock lock;
  EXPECT_TRUE(unlockRefused(lock));
  {
    ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  bool otherOwns = true;
  bool otherTook = true;
  bool otherRefused = false;
  std::thread([&] {
    otherOwns = lock.owns_lock();
    otherTook = lock.try_lock();
    otherRefused = unlockRefused(lock);
  }).join();
  EXPECT_FALSE(otherOwns || otherTook);
  EXPECT_TRUE(otherRefused);
  EXPECT_TRUE(lock.owns_lock());  // neither the guard nor the refused unlock released it
  lock.unlock();
  EXPECT_TRUE(unlockRefused(lock));
  {
    ConditionalGuard guard(lock);
    EXPECT_TRUE(lock.owns_lock());
  }
  EXPECT_FALSE(lock.owns_lock());
  {
    ConditionalGuard guard(lock);
    lock.unlock();  // the guard then finds nothing to release
  }
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

}  // namespace
}  // namespace Tarvo::Locking
