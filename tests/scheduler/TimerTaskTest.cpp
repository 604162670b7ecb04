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

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using ::testing::HasSubstr;
using ::testing::Not;

class FnTimer : public TimerTask {
 public:
  using Body = std::function<void(FnTimer&)>;
  FnTimer(std::shared_ptr<TaskScheduler> scheduler, const std::string& name, Body body = {})
      : TimerTask(std::move(scheduler), TaskPriority::normal, name), body_(std::move(body)) {}
  FnTimer(TaskScheduler* scheduler, const std::string& name)
      : TimerTask(scheduler, TaskPriority::normal, name) {}
  void taskExecute() override {
    ++runs;
    if (body_) {
      body_(*this);
    }
  }
  int runs = 0;

 private:
  Body body_;
};

unsigned historyCount(const TaskSchedulerRoot& root, TaskSchedulerEventType type) {
  unsigned n = 0;
  for (unsigned i = 0; i < root.history()->size(); ++i) {
    n += root.history()->event(i).eventType() == type;
  }
  return n;
}

// Trace lines of the "TaskScheduler" handler at levels 8 and 9 written while `body` runs.
std::string schedulerTraces(const std::function<void()>& body) {
  Platform::setupTarvoDebug("TaskScheduler/89");
  testing::internal::CaptureStderr();
  body();
  std::string out = testing::internal::GetCapturedStderr();
  Platform::clearTarvoDebug("TaskScheduler/89");
  return out;
}

class ManualTimerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root =
      std::make_shared<TaskSchedulerRootManual>("manual");
  std::shared_ptr<FnTimer> timer = std::make_shared<FnTimer>(root, "tick");
};

TEST_F(ManualTimerTest, ZeroDelayDisarmsAndQueuesWithoutArmingInBothForms) {
  for (auto zero : {std::function<void()>([&] { timer->scheduleTaskDelay(0.0); }),
                    std::function<void()>([&] { timer->scheduleTaskDelay(0ns); })}) {
    timer->scheduleTaskDelay(2.0);
    ASSERT_TRUE(timer->timerRunning());
    zero();
    EXPECT_FALSE(timer->timerRunning());
    EXPECT_EQ(root->timersArmed(), 0u);
    EXPECT_TRUE(timer->taskStatus().taskOnRunQueue());
    root->runUntilIdle();
  }
  EXPECT_EQ(timer->runs, 2);
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStart), 2u);
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 0u);
}

TEST_F(ManualTimerTest, NegativeDelayArmsTheMinimumInsteadOfRunningAtOnce) {
  timer->scheduleTaskDelay(-1ns);
  EXPECT_TRUE(timer->timerRunning());
  EXPECT_FALSE(timer->taskStatus().taskOnRunQueue());
  EXPECT_EQ(timer->timerRemaining(), 0.0);
  EXPECT_EQ(root->advanceBy(0ns), 1u);
  EXPECT_EQ(timer->runs, 1);

  auto slow = std::make_shared<TaskSchedulerRootManual>("slow", 10ms);
  auto t = std::make_shared<FnTimer>(slow, "t");
  t->scheduleTaskDelay(-1.0);
  EXPECT_DOUBLE_EQ(t->timerRemaining(), 0.01);
  t->scheduleTaskLowestDelay(1ms);  // clamped to 10 ms too: not earlier, kept
  slow->advanceBy(9ms);
  EXPECT_EQ(t->runs, 0);
  slow->advanceBy(1ms);
  EXPECT_EQ(t->runs, 1);
}

TEST_F(ManualTimerTest, ForeverDelayStopsLikeStopTimerTask) {
  timer->scheduleTaskDelay(1.0);
  timer->scheduleTaskDelay(HUGE_VAL);
  EXPECT_FALSE(timer->taskScheduled());
  timer->scheduleTask();
  timer->scheduleTaskJitterUp(nanoseconds::max(), 50);
  EXPECT_FALSE(timer->taskScheduled());
  timer->scheduleTaskDelay(1s);
  timer->scheduleTaskDelay(nanoseconds::max());
  EXPECT_FALSE(timer->taskScheduled());
  EXPECT_FALSE(timer->taskBusy());
  // Only the stops of an armed timer are recorded, not the one of a queued task.
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 2u);
  EXPECT_EQ(root->advanceBy(1h), 0u);
  EXPECT_EQ(timer->runs, 0);
}

TEST_F(ManualTimerTest, LowestDelayKeepsTheEarlierExpiryAndLeavesAQueuedTaskAlone) {
  timer->scheduleTaskDelay(2.0);
  std::string kept = schedulerTraces([&] { timer->scheduleTaskLowestDelay(5.0); });
  EXPECT_THAT(kept, HasSubstr("Timer already running tick@"));
  EXPECT_TRUE(timer->timerRunning());
  EXPECT_DOUBLE_EQ(timer->timerRemaining(), 2.0);
  timer->scheduleTaskLowestDelay(1s);
  EXPECT_DOUBLE_EQ(timer->timerRemaining(), 1.0);
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStart), 2u);

  timer->scheduleTask();
  std::string queued = schedulerTraces([&] { timer->scheduleTaskLowestDelay(1.0); });
  EXPECT_THAT(queued, HasSubstr("Already on runQueue tick@"));
  EXPECT_FALSE(timer->timerRunning());
  timer->scheduleTaskDelay(1.0);
  EXPECT_FALSE(timer->taskStatus().taskOnRunQueue());
  EXPECT_TRUE(timer->timerRunning());
  EXPECT_EQ(root->runnableTaskCount(), 0);
}

TEST_F(ManualTimerTest, JitterStaysWithinItsBoundsAndRepeatsForASeed) {
  timer->scheduleTaskJitterUp(10.0, 0);
  EXPECT_EQ(timer->timerRemaining(), 10.0);
  std::vector<double> drawn;
  bool sawSpread = false;
  for (int i = 0; i < 200; ++i) {
    timer->scheduleTaskJitterUp(10.0, 100);
    double up = timer->timerRemaining();
    EXPECT_GE(up, 10.0);
    EXPECT_LE(up, 20.0);
    timer->scheduleTaskJitterDown(10s, 100);
    double down = timer->timerRemaining();
    EXPECT_GE(down, 0.0);
    EXPECT_LE(down, 10.0);
    timer->scheduleTaskJitterUp(10s, 20);
    EXPECT_LE(timer->timerRemaining(), 12.0);
    sawSpread |= up > 15.0 && down < 5.0;
    drawn.push_back(up);
  }
  EXPECT_TRUE(sawSpread);

  auto again = std::make_shared<TaskSchedulerRootManual>("again");
  auto twin = std::make_shared<FnTimer>(again, "twin");
  twin->scheduleTaskJitterUp(10.0, 0);
  for (double expected : drawn) {
    twin->scheduleTaskJitterUp(10.0, 100);
    ASSERT_EQ(twin->timerRemaining(), expected);
    twin->scheduleTaskJitterDown(10s, 100);
    twin->scheduleTaskJitterUp(10s, 20);
  }
}

TEST_F(ManualTimerTest, JitterOffsetOfTheWholeDelaySchedulesAtOnce) {
  constexpr unsigned kSeedDrawingHundred = 57966750;  // rand_r() >= 2147483600 first
  root->randomSeedIs(kSeedDrawingHundred);
  ASSERT_EQ(root->randomPercent(), 100u);
  for (auto down : {std::function<void()>([&] { timer->scheduleTaskJitterDown(10.0, 100); }),
                    std::function<void()>([&] { timer->scheduleTaskJitterDown(10s, 100); })}) {
    timer->scheduleTaskDelay(3.0);
    root->randomSeedIs(kSeedDrawingHundred);
    down();
    EXPECT_FALSE(timer->timerRunning());
    EXPECT_TRUE(timer->taskStatus().taskOnRunQueue());
  }
  root->randomSeedIs(kSeedDrawingHundred);
  timer->scheduleTaskJitterUp(1000h, 100);  // 128-bit product: no overflow
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

TEST_F(ManualTimerTest, StopRemovesAQueuedTaskAndExpirationFollowsTheState) {
  EXPECT_EQ(timer->currentExpirationTime(), TaskTimePoint::max());
  EXPECT_TRUE(timer->taskStatus().taskTimer());
  EXPECT_FALSE(timer->taskStatus().taskTimerRunning());

  timer->scheduleTask();
  TaskTimePoint before = TaskClock::now();
  TaskTimePoint expiry = timer->currentExpirationTime();
  EXPECT_GE(expiry, before - 1ms);
  EXPECT_LE(expiry, TaskClock::now() + 1ms);
  timer->stopTimerTask();
  EXPECT_FALSE(timer->taskScheduled());
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 0u);

  timer->scheduleTaskDelay(3s);
  EXPECT_EQ(timer->currentExpirationTime(), root->manualTime() + 3s);
  EXPECT_EQ(timer->currentExpirationTimeRaw(), root->manualTime() + 3s);
  EXPECT_TRUE(timer->taskStatus().taskTimerRunning());
  EXPECT_TRUE(timer->taskBusy());
  timer->stopTimerTask();
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 1u);
  EXPECT_EQ(timer->currentExpirationTimeRaw(), TaskTimePoint::max());
  EXPECT_EQ(timer->timerRemaining(), HUGE_VAL);

  timer->scheduleTaskDelay(3s);
  timer->taskRunFromTest();  // disarms without a "timerStop"
  EXPECT_EQ(timer->runs, 1);
  EXPECT_EQ(root->timersArmed(), 0u);
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::timerStop), 1u);
  EXPECT_EQ(root->advanceBy(1h), 0u);
}

TEST_F(ManualTimerTest, PeriodicTaskStaysBusyAndRunsOncePerPeriod) {
  std::vector<TaskTimePoint> ranAt;
  auto periodic = std::make_shared<FnTimer>(root, "periodic", [&](FnTimer& t) {
    ranAt.push_back(root->manualTime());
    t.scheduleTaskDelay(1s);
  });
  TaskTimePoint start = root->manualTime();
  periodic->scheduleTaskDelay(1s);
  EXPECT_EQ(root->advanceBy(10s + 500ms), 10u);
  ASSERT_EQ(ranAt.size(), 10u);
  for (size_t i = 0; i < ranAt.size(); ++i) {
    EXPECT_EQ(ranAt[i], start + std::chrono::seconds(i + 1));
  }
  EXPECT_TRUE(periodic->taskBusy());
  EXPECT_EQ(root->manualTime(), start + 10s + 500ms);
  EXPECT_DOUBLE_EQ(periodic->timerRemaining(), 0.5);
}

// The heartbeat of the README's timer section, as written there.
TEST_F(ManualTimerTest, JitteredHeartbeatBeatsOnTheManualClock) {
  int beats = 0;
  auto beat = std::make_shared<FnTimer>(root, "heartbeat", [&](FnTimer& t) {
    ++beats;
    t.scheduleTaskJitterUp(std::chrono::seconds(10), 5);
  });
  beat->scheduleTaskDelay(std::chrono::seconds(10));
  root->advanceBy(std::chrono::seconds(9));
  EXPECT_EQ(beats, 0);
  root->advanceBy(std::chrono::minutes(1));
  EXPECT_EQ(beats, 6);
  EXPECT_LE(beat->timerRemaining(), 10.5);
}

TEST_F(ManualTimerTest, ThousandsOfTimersFireInExpiryThenArmingOrder) {
  constexpr int kTimers = 3000;
  std::vector<int> order;
  std::vector<std::shared_ptr<FnTimer>> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(
        std::make_shared<FnTimer>(root, "t", [&order, i](FnTimer&) { order.push_back(i); }));
  }
  // Delays (i * 7919) % 1000 ms: a scramble with three timers per millisecond.
  for (int i = 0; i < kTimers; ++i) {
    timers[i]->scheduleTaskDelay(std::chrono::milliseconds((i * 7919) % 1000 + 1));
  }
  timers[5].reset();  // destroyed while armed: never fires
  EXPECT_EQ(root->timersArmed(), size_t(kTimers - 1));
  EXPECT_EQ(root->advanceBy(500ms), 1500u);
  EXPECT_EQ(root->advanceBy(1s), 1499u);
  ASSERT_EQ(order.size(), size_t(kTimers - 1));
  for (size_t k = 1; k < order.size(); ++k) {
    int a = order[k - 1], b = order[k];
    auto key = [](int i) { return std::make_pair((i * 7919) % 1000, i); };
    EXPECT_LT(key(a), key(b)) << "at " << k;
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
  EXPECT_NEAR(std::chrono::duration<double>(expiry - TaskClock::now()).count(), 3600.0, 0.1);
  auto wall = std::chrono::steady_clock::now();
  double before = Tarvo::time();
  Platform::setFastForward(true);
  Platform::doEventLoop();
  EXPECT_EQ(timer->runs, 1);
  EXPECT_GE(Tarvo::time() - before, 3599.9);
  EXPECT_LT(std::chrono::steady_clock::now() - wall, 10s);
  EXPECT_FALSE(timer->timerRunning());
}

TEST_F(LoopTimerTest, ThousandTimersFireInExpiryOrderUnderFastForward) {
  constexpr int kTimers = 1000;
  std::vector<int> order;
  std::vector<std::shared_ptr<FnTimer>> timers;
  // Distinct delays a second apart, so that the time spent arming cannot reorder them.
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(
        std::make_shared<FnTimer>(root, "t", [&order, i](FnTimer&) { order.push_back(i); }));
    timers.back()->scheduleTaskDelay(std::chrono::seconds((i * 7919) % kTimers + 1));
  }
  Platform::setFastForward(true);
  Platform::doEventLoop();
  ASSERT_EQ(order.size(), size_t(kTimers));
  for (size_t k = 1; k < order.size(); ++k) {
    EXPECT_LT((order[k - 1] * 7919) % kTimers, (order[k] * 7919) % kTimers) << "at " << k;
  }
}

TEST_F(LoopTimerTest, LowestDelayKeepsThePlatformExpiryAndTimersSurviveAThrowingTask) {
  auto timer = std::make_shared<FnTimer>(root, "timer");
  timer->scheduleTaskDelay(2.0);
  timer->scheduleTaskLowestDelay(5s);
  EXPECT_NEAR(timer->timerRemaining(), 2.0, 0.01);
  timer->scheduleTaskLowestDelay(0.05);
  EXPECT_NEAR(timer->timerRemaining(), 0.05, 0.01);

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
