#include <chrono>
#include <cmath>
#include <thread>

#include <gtest/gtest.h>

#include "EventTestSupport.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "platform/EventBaseTimeouts.h"

namespace Tarvo::Test {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double seconds(const timeval& tv) {
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

TEST(FastForward, LoopRunsEveryTimerWithoutWaitingAndTheClockFollows) {
  FastForwardOn on;
  TimerRecorder first;
  TimerRecorder second;
  TimerRecorder hour;
  auto firstControl = Platform::getTimerControl(&first);
  auto secondControl = Platform::getTimerControl(&second);
  auto hourControl = Platform::getTimerControl(&hour);
  std::vector<double> firedAt;
  first.onTimeout = [&] { firedAt.push_back(Tarvo::time()); };
  second.onTimeout = [&] { firedAt.push_back(Tarvo::time()); };
  hour.onTimeout = [&] { firedAt.push_back(Tarvo::time()); };
  firstControl->setTimeout(10);
  secondControl->setTimeout(20);
  hourControl->setTimeout(3600);

  double clockBefore = Tarvo::time();
  double offsetBefore = leVirtualTimeOffset();
  auto start = Clock::now();
  Platform::doEventLoop();
  double real = secondsSince(start);

  EXPECT_LT(real, 1.0);
  ASSERT_EQ(firedAt.size(), 3u);
  EXPECT_NEAR(firedAt[0] - clockBefore, 10, 0.05 + real);
  EXPECT_NEAR(firedAt[1] - clockBefore, 20, 0.05 + real);
  EXPECT_NEAR(firedAt[2] - clockBefore, 3600, 0.05 + real);
  EXPECT_NEAR(leVirtualTimeOffset() - offsetBefore, 3600, 0.05);
}

TEST(FastForward, DelayToTheFirstTimer) {
  timeval delay{};
  EXPECT_THROW(fastForwardDelayToFirstTimer(&delay), AssertException);

  FastForwardOn on;
  EXPECT_FALSE(fastForwardDelayToFirstTimer(&delay));

  TimerRecorder soon;
  TimerRecorder late;
  auto soonControl = Platform::getTimerControl(&soon);
  auto lateControl = Platform::getTimerControl(&late);
  lateControl->setTimeout(50);
  soonControl->setTimeout(5);
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
  EXPECT_NEAR(seconds(delay), 5, 0.01);
  EXPECT_GE(delay.tv_usec, 0);
  EXPECT_LT(delay.tv_usec, 1000000);

  // An expiry already past gives zero, never a negative delay.
  timeval past{8, 0};
  ASSERT_EQ(event_base_timeout_subtract_offset(leBase(), &past), 0);
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(delay.tv_sec, 0);
  EXPECT_EQ(delay.tv_usec, 0);
}

TEST(FastForward, TimedLoopAdvancesByTheSpanAndReturnsAtOnce) {
  FastForwardOn on;
  TimerRecorder timer;
  auto control = Platform::getTimerControl(&timer);
  control->setTimeout(5);
  double offsetBefore = leVirtualTimeOffset();
  auto start = Clock::now();
  Platform::doEventLoop(3.0);
  EXPECT_EQ(timer.fired, 0);
  EXPECT_NEAR(control->remainingTimeout(), 2, 0.01);
  Platform::doEventLoop(3.0);
  EXPECT_EQ(timer.fired, 1);
  EXPECT_LT(secondsSince(start), 1.0);
  EXPECT_NEAR(leVirtualTimeOffset() - offsetBefore, 6, 1e-6);
}

TEST(FastForward, WaitforLoopAdvancesByTheShorterOfSpanAndFirstTimer) {
  FastForwardOn on;
  TimerRecorder timer;
  auto control = Platform::getTimerControl(&timer);
  control->setTimeout(5);
  double offsetBefore = leVirtualTimeOffset();
  Platform::doEventLoopInWaitfor(60);
  EXPECT_EQ(timer.fired, 1);
  EXPECT_NEAR(leVirtualTimeOffset() - offsetBefore, 5, 0.01);

  control->setTimeout(50);
  offsetBefore = leVirtualTimeOffset();
  Platform::doEventLoopInWaitfor(2);
  EXPECT_EQ(timer.fired, 1);
  EXPECT_NEAR(leVirtualTimeOffset() - offsetBefore, 2, 1e-6);

  // Nothing armed: the whole span passes.
  control->delTimeout();
  offsetBefore = leVirtualTimeOffset();
  Platform::doEventLoopInWaitfor(7);
  EXPECT_NEAR(leVirtualTimeOffset() - offsetBefore, 7, 1e-6);
}

TEST(FastForward, OffsetIsPerThreadAndCarriesMicroseconds) {
  FastForwardOn on;
  double mainOffset = leVirtualTimeOffset();
  double afterFirst = -1;
  double afterSecond = -1;
  std::thread([&] {
    afterFirst = leVirtualTimeOffset();
    Platform::doEventLoop(1.5);
    Platform::doEventLoop(0.7);
    afterSecond = leVirtualTimeOffset();
  }).join();
  EXPECT_EQ(afterFirst, 0.0);
  EXPECT_DOUBLE_EQ(afterSecond, 2.2);
  EXPECT_EQ(leVirtualTimeOffset(), mainOffset);
}

TEST(FastForward, OnlyTheMainThreadMaySwitchIt) {
  Platform::setFastForward(true);
  bool threw = false;
  std::thread([&] {
    try {
      Platform::setFastForward(false);
    } catch (const AssertException& e) {
      threw = e.message().find("FastForward invoked from non-main thread") != std::string::npos;
    }
  }).join();
  EXPECT_TRUE(threw);
  EXPECT_TRUE(Platform::fastForward());
  Platform::setFastForward(false);
  EXPECT_FALSE(Platform::fastForward());
}

TEST(FastForward, OffFormsWaitInRealTime) {
  ASSERT_FALSE(Platform::fastForward());
  double offsetBefore = leVirtualTimeOffset();
  TimerRecorder timer;
  auto control = Platform::getTimerControl(&timer);
  control->setTimeout(0.02);
  auto start = Clock::now();
  Platform::doEventLoopInWaitfor(5);
  EXPECT_EQ(timer.fired, 1);
  EXPECT_GE(secondsSince(start), 0.015);
  EXPECT_EQ(leVirtualTimeOffset(), offsetBefore);
}

}  // namespace
}  // namespace Tarvo::Test
