#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "EventTestSupport.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/EventBaseTimeouts.h"

namespace Tarvo::Test {
namespace {

class FastForward : public ::testing::Test {
 protected:
  void SetUp() override { Platform::setFastForward(true); }
  void TearDown() override { Platform::setFastForward(false); }
};

TEST_F(FastForward, LoopRunsEveryTimerWithoutWaitingAndTheClockFollows) {
  Recorder recorder;
  std::vector<double> firedAt;
  recorder.action = [&] { firedAt.push_back(Tarvo::time()); };
  std::shared_ptr<Platform::TimerControl> controls[3];
  const double delays[3] = {20, 10, 3600};
  for (int i = 0; i < 3; ++i) {
    controls[i] = Platform::getTimerControl(&recorder);
    controls[i]->setTimeout(delays[i]);
  }
  const double clockBefore = Tarvo::time();
  const double offsetBefore = leVirtualTimeOffset();
  auto start = std::chrono::steady_clock::now();
  Platform::doEventLoop();
  double real = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(real, 1.0);
  ASSERT_EQ(firedAt.size(), 3u);
  EXPECT_NEAR(firedAt[0] - clockBefore, 10, 0.05 + real);
  EXPECT_NEAR(firedAt[1] - clockBefore, 20, 0.05 + real);
  EXPECT_NEAR(firedAt[2] - clockBefore, 3600, 0.05 + real);
  EXPECT_NEAR(leVirtualTimeOffset() - offsetBefore, 3600, 0.05);
}

TEST_F(FastForward, DelayToTheFirstTimerIsNeverNegative) {
  timeval delay{};
  EXPECT_FALSE(fastForwardDelayToFirstTimer(&delay));
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  control->setTimeout(5);
  const timeval past{8, 0};
  ASSERT_EQ(event_base_timeout_subtract_offset(leBase(), &past), 0);
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(delay.tv_sec + delay.tv_usec, 0);
  Platform::setFastForward(false);
  EXPECT_THROW(fastForwardDelayToFirstTimer(&delay), AssertException);
}

TEST_F(FastForward, TimedFormsAdvanceBySpanOrFirstTimerAndReturnAtOnce) {
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  control->setTimeout(5);
  double offset = leVirtualTimeOffset();
  Platform::doEventLoop(3.0);  // the whole span, even with a timer due sooner
  EXPECT_EQ(recorder.timeouts, 0);
  EXPECT_NEAR(leVirtualTimeOffset() - offset, 3, 1e-6);
  Platform::doEventLoop(3.0);
  EXPECT_EQ(recorder.timeouts, 1);

  control->setTimeout(5);
  offset = leVirtualTimeOffset();
  Platform::doEventLoopInWaitfor(60);  // only up to the timer
  EXPECT_EQ(recorder.timeouts, 2);
  EXPECT_NEAR(leVirtualTimeOffset() - offset, 5, 0.01);
  control->setTimeout(50);
  offset = leVirtualTimeOffset();
  Platform::doEventLoopInWaitfor(2);
  EXPECT_EQ(recorder.timeouts, 2);
  EXPECT_NEAR(leVirtualTimeOffset() - offset, 2, 1e-6);
}

TEST_F(FastForward, OffsetIsPerThreadAndOnlyTheMainThreadSwitchesTheMode) {
  const double mainOffset = leVirtualTimeOffset();
  double offsets[2] = {-1, -1};
  std::string refusal;
  std::thread([&] {
    Platform::doEventLoop(1.5);
    Platform::doEventLoop(0.7);  // 1.5 + 0.7: the microseconds carry into a second
    offsets[0] = leVirtualTimeOffset();
    try {
      Platform::setFastForward(false);
    } catch (const AssertException& e) {
      refusal = e.message();
    }
  }).join();
  EXPECT_DOUBLE_EQ(offsets[0], 2.2);
  EXPECT_EQ(leVirtualTimeOffset(), mainOffset);
  EXPECT_NE(refusal.find("FastForward invoked from non-main thread"), std::string::npos);
  EXPECT_TRUE(Platform::fastForward());
}

}  // namespace
}  // namespace Tarvo::Test
