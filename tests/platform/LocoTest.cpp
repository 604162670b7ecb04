#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "Tarvo/Exception.h"
#include "Tarvo/ForkHandler.h"
#include "Tarvo/Platform.h"
#include "Tarvo/Thread.h"
#include "common/TestSupport.h"

using namespace Tarvo;
using ::testing::MatchesRegex;

TEST(Loco, NestsOnOneThreadAndExcludesOthers) {
  Platform::Loco& loco = Platform::loco();
  std::atomic<int> phase{0};
  std::atomic<bool> otherSawOwnership{true};
  std::atomic<bool> otherGotLock{false};
  std::thread other;
  {
    Platform::LocoGuard outer;
    {
      Platform::LocoGuard inner;
      EXPECT_TRUE(loco.owns_lock());
    }
    EXPECT_TRUE(loco.owns_lock()) << "the outer guard still holds it";
    other = std::thread([&] {
      otherSawOwnership = loco.owns_lock();
      phase = 1;
      Platform::LocoGuard guard;  // blocks until the main thread lets go
      otherGotLock = true;
      EXPECT_TRUE(loco.owns_lock());
    });
    while (phase.load() == 0)
      std::this_thread::yield();
    EXPECT_FALSE(otherSawOwnership.load());
    EXPECT_FALSE(otherGotLock.load());
  }
  EXPECT_FALSE(loco.owns_lock());
  other.join();
  EXPECT_TRUE(otherGotLock.load());
}

TEST(Loco, ForkedChildCanTakeTheLockAThreadOfTheParentHeld) {
  std::atomic<bool> held{false};
  std::atomic<bool> release{false};
  std::thread holder([&] {
    Platform::LocoGuard guard;
    held = true;
    while (!release.load())
      std::this_thread::yield();
  });
  while (!held.load())
    std::this_thread::yield();
  auto child = Tarvo::Test::runInChild([] {
    Platform::LocoGuard guard;  // would wait for ever for the vanished holder
    return Platform::loco().owns_lock() ? 0 : 1;
  });
  release = true;
  holder.join();
  EXPECT_EQ(child.exitCode, 0);
}

TEST(ThreadUtilities, MainThreadAndForkedChild) {
  EXPECT_TRUE(Platform::isMainThread());
  EXPECT_EQ(Platform::gettid(), getpid());
  bool otherIsMain = true;
  pid_t otherTid = 0;
  std::thread([&] {
    otherIsMain = Platform::isMainThread();
    Platform::setMainThread();
    otherTid = Platform::gettid();
    EXPECT_FALSE(Platform::mainThreadFlag());
  }).join();
  EXPECT_FALSE(otherIsMain);
  EXPECT_NE(otherTid, getpid());
  Platform::setMainThread();
  EXPECT_TRUE(Platform::mainThreadFlag());

  EXPECT_FALSE(Platform::isForkedChild());
  auto child = Tarvo::Test::runInChild([] {
    auto grandchild = Tarvo::Test::runInChild([] { return Platform::isForkedChild() ? 0 : 1; });
    return Platform::isForkedChild() && grandchild.exitCode == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_FALSE(Platform::isForkedChild());
}

TEST(ThreadName, MainThreadKeepsItsNameOthersAreCached) {
  char system[16];
  pthread_getname_np(pthread_self(), system, sizeof system);
  threadNameIs("renamed");
  EXPECT_STREQ(threadName(), system);

  std::thread([] {
    threadNameIs("worker-1");
    // A later change made behind the cache's back is not seen: the name is cached.
    pthread_setname_np(pthread_self(), "changed");
    EXPECT_STREQ(threadName(), "worker-1");
    try {
      threadNameIs("a-name-longer-than-15");
      ADD_FAILURE() << "a name over 15 characters must be refused";
    } catch (const AssertException& e) {
      EXPECT_THAT(e.message(), MatchesRegex("ThreadCpp:threadNameIs:.*pthread_setname_np\\(\\) "
                                            "failed:34.* for name:a-name-longer-than-15"));
    }
    EXPECT_STREQ(threadName(), "worker-1");
  }).join();
}
