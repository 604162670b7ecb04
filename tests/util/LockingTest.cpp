#include "Tarvo/Locking.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "Tarvo/Exception.h"

namespace Tarvo::Locking {
namespace {

constexpr const char* kNotHeld =
    "Tarvo::Locking::unlock() attempting to release a lock that is not currently held";

// Runs `body` on another thread and waits for it.
template <typename Body>
void onOtherThread(Body body) {
  std::thread(body).join();
}

bool unlockRefused(Lock& lock) {
  try {
    lock.unlock();
  } catch (const AssertException& e) {
    return e.message().find(std::string("Locking:unlock:")) != std::string::npos &&
           e.message().find(kNotHeld) != std::string::npos;
  }
  return false;
}

TEST(LockingTest, OnlyTheHoldingThreadOwnsAndMayUnlock) {
  Lock lock;
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_TRUE(unlockRefused(lock));

  lock.lock();
  EXPECT_TRUE(lock.owns_lock());
  bool otherOwns = true;
  bool otherTook = true;
  bool otherRefused = false;
  onOtherThread([&] {
    otherOwns = lock.owns_lock();
    otherTook = lock.try_lock();
    otherRefused = unlockRefused(lock);
  });
  EXPECT_FALSE(otherOwns);
  EXPECT_FALSE(otherTook);
  EXPECT_TRUE(otherRefused);
  // The refused unlock changed nothing.
  EXPECT_TRUE(lock.owns_lock());
  lock.unlock();
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_TRUE(unlockRefused(lock));

  onOtherThread([&] {
    otherTook = lock.try_lock();
    otherOwns = lock.owns_lock();
    lock.unlock();
  });
  EXPECT_TRUE(otherTook);
  EXPECT_TRUE(otherOwns);
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

TEST(LockingTest, ConditionalGuardKeepsTheLockWhenToldNotToRelease) {
  Lock lock;
  {
    ConditionalGuard guard(lock);
    EXPECT_TRUE(lock.owns_lock());
  }
  EXPECT_FALSE(lock.owns_lock());

  {
    ConditionalGuard guard(lock);
    guard.releaseIs(false);
  }
  EXPECT_TRUE(lock.owns_lock());
  bool otherRefused = false;
  onOtherThread([&] { otherRefused = unlockRefused(lock); });
  EXPECT_TRUE(otherRefused);
  lock.unlock();

  // A guard whose lock was already unlocked by its scope leaves it alone.
  {
    ConditionalGuard guard(lock);
    lock.unlock();
  }
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

TEST(LockingTest, LockExcludesConcurrentWriters) {
  Lock lock;
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        std::lock_guard<Lock> guard(lock);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter, 40000);
}

}  // namespace
}  // namespace Tarvo::Locking
