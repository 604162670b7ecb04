#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Test::FnTimer;
using Test::historyCount;
using ::testing::HasSubstr;

// Trace lines of the "TaskScheduler" handler at level 8 written while `body` runs.
std::string schedulerTraces(const std::function<void()>& body) {
  Platform::setupTarvoDebug("TaskScheduler/8");
  testing::internal::CaptureStderr();
  body();
  std::string out = testing::internal::GetCapturedStderr();
  Platform::clearTarvoDebug("TaskScheduler/8");
  return out;
}

class ManualTimerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root =
      std::make_shared<TaskSchedulerRootManual>("manual");
  std::shared_ptr<FnTimer> timer = std::make_shared<FnTimer>(root, "tick");
};

TEST_F(ManualTimerTest, ZeroRunsAtOnceNegativeArmsTheMinimumForeverStopsOrNeverFires) {
  for (auto zero : {+[](TimerTask& t) { t.scheduleTaskDelay(0.0); },
                    +[](TimerTask& t) { t.scheduleTaskDelay(0ns); }}) {
    timer->scheduleTaskDelay(2.0);
    zero(*timer);
    EXPECT_FALSE(timer->timerRunning());
    EXPECT_EQ(root->timersArmed(), 0u);
    EXPECT_TRUE(timer->taskStatus().taskOnRunQueue());
  }
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStart), 2u);
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 0u);

  timer->scheduleTaskDelay(-1ns);  // off the run queue, armed for zero
  EXPECT_TRUE(timer->timerRunning());
  EXPECT_FALSE(timer->taskStatus().taskOnRunQueue());
  EXPECT_EQ(root->advanceBy(0ns), 1u);
  EXPECT_EQ(timer->runs, 1);

  for (auto forever : {+[](TimerTask& t) { t.scheduleTaskDelay(HUGE_VAL); },
                       +[](TimerTask& t) { t.scheduleTaskDelay(nanoseconds::max()); },
                       +[](TimerTask& t) { t.scheduleTaskJitterDown(HUGE_VAL, 10); }}) {
    timer->scheduleTaskDelay(1.0);
    forever(*timer);
    EXPECT_FALSE(timer->taskScheduled());
    EXPECT_FALSE(timer->taskBusy());
  }
  timer->scheduleTask();
  timer->scheduleTaskJitterUp(nanoseconds::max(), 50);  // a queued task is taken off too
  EXPECT_FALSE(timer->taskScheduled());
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 3u);
  timer->scheduleTaskDelay(1e300);  // beyond the clock's range: armed, but never fires
  EXPECT_TRUE(timer->timerRunning());
  EXPECT_EQ(timer->timerRemaining(), HUGE_VAL);
  EXPECT_EQ(timer->currentExpirationTime(), TaskTimePoint::max());
  EXPECT_EQ(root->advanceBy(nanoseconds::max()), 0u);

  auto slow = std::make_shared<TaskSchedulerRootManual>("slow", 10ms);
  auto t = std::make_shared<FnTimer>(slow, "t");
  t->scheduleTaskDelay(-1.0);
  t->scheduleTaskLowestDelay(1ms);  // clamped to 10 ms too: not earlier, kept
  EXPECT_DOUBLE_EQ(t->timerRemaining(), 0.01);

  // 1.001 s is due after exactly 1,001,000,000 ns, although the double holds it a little below
  // its decimal value.
  auto exact = std::make_shared<TaskSchedulerRootManual>("exact");
  auto e = std::make_shared<FnTimer>(exact, "e");
  e->scheduleTaskDelay(1.001);
  EXPECT_EQ(exact->advanceBy(1000999999ns), 0u);
  EXPECT_EQ(exact->advanceBy(1ns), 1u);
}

TEST_F(ManualTimerTest, LowestDelayKeepsTheEarlierExpiryAndLeavesAQueuedTaskAlone) {
  timer->scheduleTaskDelay(2.0);
  EXPECT_THAT(schedulerTraces([&] { timer->scheduleTaskLowestDelay(5.0); }),
              HasSubstr("Timer already running tick@"));
  EXPECT_TRUE(timer->timerRunning());
  EXPECT_DOUBLE_EQ(timer->timerRemaining(), 2.0);
  timer->scheduleTaskLowestDelay(1s);
  EXPECT_DOUBLE_EQ(timer->timerRemaining(), 1.0);
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStart), 2u);

  timer->scheduleTask();
  EXPECT_THAT(schedulerTraces([&] { timer->scheduleTaskLowestDelay(1.0); }),
              HasSubstr("Already on runQueue tick@"));
  EXPECT_FALSE(timer->timerRunning());
  timer->scheduleTaskDelay(1.0);
  EXPECT_FALSE(timer->taskStatus().taskOnRunQueue());
  EXPECT_TRUE(timer->timerRunning());
}

TEST_F(ManualTimerTest, JitterStaysWithinItsBoundsAndRepeatsForASeed) {
  timer->scheduleTaskJitterUp(10.0, 0);
  EXPECT_EQ(timer->timerRemaining(), 10.0);
  auto twin = std::make_shared<FnTimer>(std::make_shared<TaskSchedulerRootManual>("2"), "twin");
  twin->scheduleTaskJitterUp(10.0, 0);
  double lowest = 20, highest = 0;
  for (int i = 0; i < 200; ++i) {
    timer->scheduleTaskJitterUp(10.0, 100);
    twin->scheduleTaskJitterUp(10.0, 100);
    ASSERT_EQ(timer->timerRemaining(), twin->timerRemaining());
    highest = std::max(highest, timer->timerRemaining());
    timer->scheduleTaskJitterDown(10s, 100);
    twin->scheduleTaskJitterDown(10s, 100);
    lowest = std::min(lowest, timer->timerRemaining());
    ASSERT_LE(timer->timerRemaining(), 10.0);
  }
  EXPECT_TRUE(lowest >= 0 && lowest < 1 && highest > 19 && highest <= 20) << lowest << highest;

  constexpr unsigned kSeedDrawingHundred = 57966750;  // rand_r() >= 2147483600 first
  root->randomSeedIs(kSeedDrawingHundred);
  ASSERT_EQ(root->randomPercent(), 100u);
  for (auto down : {+[](TimerTask& t) { t.scheduleTaskJitterDown(10.0, 100); },
                    +[](TimerTask& t) { t.scheduleTaskJitterDown(10s, 100); }}) {
    timer->scheduleTaskDelay(3.0);
    root->randomSeedIs(kSeedDrawingHundred);
    down(*timer);  // the whole delay off: zero, so queued at once
    EXPECT_FALSE(timer->timerRunning());
    EXPECT_TRUE(timer->taskStatus().taskOnRunQueue());
  }
  root->randomSeedIs(kSeedDrawingHundred);
  timer->scheduleTaskJitterUp(1000h, 100);  // beyond 64 bits in the product
  EXPECT_DOUBLE_EQ(timer->timerRemaining(), 2000 * 3600.0);
}

TEST_F(ManualTimerTest, MisuseEndsTheProcessNamingTheFunction) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the wrong-thread check spares forks
  EXPECT_DEATH(timer->scheduleTaskJitterUp(1.0, 101), "jitterOffset.*maxJitterPercentage: e > 100");
  EXPECT_DEATH(timer->scheduleTaskJitterDown(-1s, 10),
               "jitterOffset.*offset\\( -?[0-9]+ns \\) > delayIntoFuture\\( -1000000000ns \\)");
  EXPECT_DEATH(timer->scheduleTaskJitterUp(NAN, 10), "jitterOffset.*offset\\( nan \\)");
  EXPECT_DEATH(timer->scheduleTaskLowestDelay(HUGE_VAL),
               "_scheduleTaskLowestDelay.*delayIntoFuture: inf");
  EXPECT_DEATH(timer->scheduleTaskLowestDelay(nanoseconds::max()),
               "delayIntoFuture: 9223372036854775807ns");
  EXPECT_DEATH(timer->scheduleTaskDelay(NAN), "scheduleTaskDelayedPrivate.*delayIntoFuture: nan");
  EXPECT_DEATH(std::thread([&] { timer->scheduleTaskDelay(1.0); }).join(),
               "Executing in wrong thread");
}

TEST_F(ManualTimerTest, StatusExpirationAndStopFollowTheState) {
  EXPECT_EQ(timer->currentExpirationTime(), TaskTimePoint::max());
  EXPECT_TRUE(timer->taskStatus().taskTimer());
  timer->scheduleTask();
  TaskTimePoint queued = timer->currentExpirationTime();
  EXPECT_LE(queued, TaskClock::now());
  EXPECT_GE(queued, TaskClock::now() - 1s);
  timer->stopTimerTask();  // a queued task is taken off, with no "timerStop"
  EXPECT_FALSE(timer->taskScheduled());
  timer->scheduleTaskDelay(3s);
  EXPECT_EQ(timer->currentExpirationTime(), root->manualTime() + 3s);
  EXPECT_TRUE(timer->taskStatus().taskTimerRunning());
  timer->taskRunFromTest();  // disarms without a "timerStop"
  EXPECT_EQ(timer->currentExpirationTimeRaw(), TaskTimePoint::max());
  EXPECT_EQ(timer->timerRemaining(), HUGE_VAL);
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 0u);
  timer->scheduleTaskDelay(3s);
  timer->stopTimerTask();
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 1u);
  EXPECT_EQ(root->timersArmed(), 0u);
}

TEST_F(ManualTimerTest, PeriodicTasksRunOncePerPeriodAndStayBusy) {
  std::vector<TaskTimePoint> ranAt;
  auto periodic = std::make_shared<FnTimer>(root, "periodic", [&](FnTimer& t) {
    ranAt.push_back(root->manualTime());
    t.scheduleTaskDelay(1s);
  });
  // The heartbeat of the README's timer section, as written there.
  int beats = 0;
  auto beat = std::make_shared<FnTimer>(root, "heartbeat", [&](FnTimer& t) {
    ++beats;
    t.scheduleTaskJitterUp(std::chrono::seconds(10), 5);
  });
  TaskTimePoint start = root->manualTime();
  periodic->scheduleTaskDelay(1s);
  beat->scheduleTaskDelay(std::chrono::seconds(10));
  root->advanceBy(std::chrono::seconds(9));
  EXPECT_EQ(beats, 0);
  root->advanceBy(std::chrono::minutes(1));
  EXPECT_EQ(beats, 6);
  EXPECT_LE(beat->timerRemaining(), 10.5);
  ASSERT_EQ(ranAt.size(), 69u);
  EXPECT_EQ(ranAt.front(), start + 1s);
  EXPECT_EQ(ranAt.back(), start + 69s);
  EXPECT_TRUE(periodic->taskBusy());
  root->advanceBy(500ms);
  EXPECT_EQ(root->manualTime(), start + 69s + 500ms);
  EXPECT_DOUBLE_EQ(periodic->timerRemaining(), 0.5);
}

TEST_F(ManualTimerTest, ThousandsOfTimersFireInExpiryThenArmingOrder) {
  constexpr int kTimers = 3000;
  std::vector<int> order;
  std::vector<std::shared_ptr<FnTimer>> timers;
  auto delayMs = [](int i) { return (i * 7919) % 1000; };  // three timers per millisecond
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(
        std::make_shared<FnTimer>(root, "t", [&order, i](FnTimer&) { order.push_back(i); }));
    timers.back()->scheduleTaskDelay(std::chrono::milliseconds(delayMs(i) + 1));
  }
  timers[5].reset();  // destroyed while armed: never fires
  EXPECT_EQ(root->advanceBy(500ms), 1500u);
  EXPECT_EQ(root->advanceBy(1s), 1499u);
  ASSERT_EQ(order.size(), size_t(kTimers - 1));
  for (size_t k = 1; k < order.size(); ++k) {
    EXPECT_LT(std::make_pair(delayMs(order[k - 1]), order[k - 1]),
              std::make_pair(delayMs(order[k]), order[k]))
        << "at " << k;
  }
  EXPECT_EQ(std::count(order.begin(), order.end(), 5), 0);
}

TEST(TimerTaskConstructionTest, FailuresLeaveNothingRegistered) {
  TaskSchedulerRootManual unowned("unowned");
  EXPECT_THROW(FnTimer(&unowned, "x"), std::bad_weak_ptr);
  EXPECT_EQ(unowned.registeredTaskCount(), 0u);

  struct Refusing : TaskSchedulerRootManual {
    using TaskSchedulerRootManual::TaskSchedulerRootManual;
    void timerCreated(TimerTask&) override { throw std::runtime_error("no timer"); }
  };
  auto refusing = std::make_shared<Refusing>("refusing");
  EXPECT_THROW(FnTimer(refusing, "y"), std::runtime_error);
  EXPECT_EQ(refusing->registeredTaskCount(), 0u);
}

// The queries reach the root's timer operations without passing a task-level check; the
// roots check the thread there, as they do before arming and disarming.
TEST(TimerTaskThreadTest, RootTimerOperationsRefuseAnotherThread) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::shared_ptr<TaskSchedulerRoot> roots[] = {std::make_shared<TaskSchedulerRootManual>("m"),
                                                schedulerRootTarvoNonShared("loop")};
  for (const std::shared_ptr<TaskSchedulerRoot>& root : roots) {
    auto timer = std::make_shared<FnTimer>(root, "elsewhere");
    timer->scheduleTaskDelay(1h);
    auto onOtherThread = [&](auto body) { std::thread(body).join(); };
    EXPECT_DEATH(onOtherThread([&] { timer->timerRemaining(); }), "Executing in wrong thread");
    EXPECT_DEATH(onOtherThread([&] { timer->currentExpirationTimeRaw(); }),
                 "Executing in wrong thread");
    timer->stopTimerTask();
  }
}

// The event-loop root: platform timers, fast-forward and exceptions of other tasks.
class LoopTimerTest : public ::testing::Test {
 protected:
  void TearDown() override { Platform::setFastForward(false); }
  std::shared_ptr<TaskSchedulerRoot> root = schedulerRootTarvoNonShared("loop");
};

TEST_F(LoopTimerTest, AnHourUnderFastForwardRunsAtOnceAnHourLater) {
  auto timer = std::make_shared<FnTimer>(root, "hourly");
  timer->scheduleTaskDelay(1h);
  TaskTimePoint expiry = timer->currentExpirationTime();
  EXPECT_NEAR(std::chrono::duration<double>(expiry - TaskClock::now()).count(), 3600.0, 1.0);
  auto wall = std::chrono::steady_clock::now();
  double before = Tarvo::time();
  Platform::setFastForward(true);
  Platform::doEventLoop();
  EXPECT_EQ(timer->runs, 1);
  EXPECT_GE(Tarvo::time() - before, 3599.9);
  EXPECT_LT(std::chrono::steady_clock::now() - wall, 10s);
  EXPECT_FALSE(timer->timerRunning());
}

TEST_F(LoopTimerTest, LowestDelayKeepsThePlatformExpiryAndTimersSurviveAThrowingTask) {
  auto timer = std::make_shared<FnTimer>(root, "timer");
  timer->scheduleTaskDelay(2.0);
  timer->scheduleTaskLowestDelay(5s);
  EXPECT_NEAR(timer->timerRemaining(), 2.0, 0.5);  // generous: the machine may stall us
  timer->scheduleTaskLowestDelay(0.05);
  EXPECT_LE(timer->timerRemaining(), 0.051);
  // The call's time stamp is lent to the root for that call only: a root called directly
  // later must read its own clock.
  EXPECT_EQ(timer->timerStartCallTime(), TaskTimePoint{});

  auto thrower = std::make_shared<FnTimer>(root, "thrower",
                                           [](FnTimer&) { throw std::runtime_error("boom"); });
  thrower->scheduleTask();
  auto doomed = std::make_shared<FnTimer>(root, "doomed");
  doomed->scheduleTaskDelay(0.01);
  doomed.reset();  // destroyed while armed: its platform timer goes with it
  Platform::setFastForward(true);
  EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
  Platform::doEventLoop();
  EXPECT_EQ(timer->runs, 1);
  EXPECT_EQ(thrower->runs, 1);
}

}  // namespace
}  // namespace Tarvo
