#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <vector>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using Test::FnTask;

class TaskTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  std::shared_ptr<FnTask> task = std::make_shared<FnTask>(root, TaskPriority::normal, "task");

  // Runs the task as if its run had started `ago` before now.
  void runStartedAgo(std::chrono::nanoseconds ago) {
    TaskTimePoint end;
    task->taskDoRun(TaskClock::now() - ago, &end);
  }
};

TEST_F(TaskTest, QuantumLimitsAreOneSecondAndAboveZero) {
  EXPECT_EQ(task->taskQuantum(), 20ms);
  task->taskQuantumIs(1s);
  EXPECT_EQ(task->taskQuantum(), 1s);
  task->taskQuantumNoCheckIs(5s);
  EXPECT_EQ(task->taskQuantum(), 5s);
  EXPECT_DEATH(task->taskQuantumIs(1s + 1ns), "Quantum: 1000000001ns");
  EXPECT_DEATH(task->taskQuantumNoCheckIs(0ns), "Quantum: 0ns");
  EXPECT_DEATH(task->taskQuantumNoCheckIs(-3ns), "Quantum: -3ns");

  root->defaultTaskQuantumIs(7ms);
  auto later = std::make_shared<FnTask>(root, TaskPriority::normal, "later");
  EXPECT_EQ(later->taskQuantum(), 7ms);
  EXPECT_EQ(task->taskQuantum(), 5s);
}

TEST_F(TaskTest, ViolationsCountAtTwiceAndFiveTimesTheQuantum) {
  task->taskQuantumIs(100ms);
  runStartedAgo(190ms);
  EXPECT_EQ(task->taskQuantumViolation200(), 0u);
  EXPECT_EQ(task->taskQuantumViolation500(), 0u);
  runStartedAgo(200ms);
  runStartedAgo(250ms);
  runStartedAgo(480ms);
  EXPECT_EQ(task->taskQuantumViolation200(), 3u);
  EXPECT_EQ(task->taskQuantumViolation500(), 0u);
  runStartedAgo(500ms);
  runStartedAgo(2s);
  EXPECT_EQ(task->taskQuantumViolation200(), 3u);
  EXPECT_EQ(task->taskQuantumViolation500(), 2u);

  EXPECT_EQ(task->taskRunCount(), 6u);
  EXPECT_GE(task->taskRunTimeHighWaterMark(), 2s);
  EXPECT_LT(task->taskRunTimeHighWaterMark(), 2s + 50ms);
  EXPECT_GE(task->taskRunTimeTotal(), 190ms + 200ms + 250ms + 480ms + 500ms + 2s);
}

TEST_F(TaskTest, TestYieldRatioYieldsOnEveryNthCall) {
  std::vector<bool> answers;
  auto counted = std::make_shared<FnTask>(root, TaskPriority::normal, "counted", [&](FnTask& t) {
    for (int i = 0; i < 6; ++i) {
      answers.push_back(t.taskShouldYield());
    }
  });
  counted->taskTestYieldRatioIs(3);
  EXPECT_EQ(counted->taskShouldYieldMode(), TaskImpl::testYieldRatio);
  counted->taskRunFromTest();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));

  // The task's own ratio wins over the root's; without one the root's applies.
  answers.clear();
  root->taskTestYieldRatioIs(2);
  counted->taskRunFromTest();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));
  counted->taskTestYieldRatioIs(0);
  EXPECT_EQ(counted->taskTestYieldRatioEffective(), 2);
  answers.clear();
  counted->taskRunFromTest();
  EXPECT_EQ(answers, (std::vector<bool>{false, true, false, true, false, true}));
  root->taskTestYieldRatioIs(0);
  EXPECT_EQ(counted->taskShouldYieldMode(), TaskImpl::realTime);

  answers.clear();
  counted->taskForceYieldInTestIs(true);
  counted->taskRunFromTest();
  EXPECT_EQ(answers, std::vector<bool>(6, true));
}

TEST_F(TaskTest, RealTimeYieldFollowsTheQuantum) {
  std::vector<bool> answers;
  auto t = std::make_shared<FnTask>(root, TaskPriority::normal, "rt", [&](FnTask& self) {
    answers.push_back(self.taskShouldYield());
  });
  // Before any run, outside taskExecute, the real-time rule applies: long past the quantum.
  EXPECT_TRUE(t->taskShouldYield());
  t->taskQuantumIs(1s);
  TaskTimePoint end;
  t->taskDoRun(TaskClock::now(), &end);
  t->taskDoRun(TaskClock::now() - 2s, &end);
  t->taskDoRun(TaskClock::now() + 1h, &end);  // a start in the future also yields
  EXPECT_EQ(answers, (std::vector<bool>{false, true, true}));
  EXPECT_DEATH(t->taskShouldYield(), "taskCurrentlyRunning: 0 taskRunCount: 3");
}

TEST_F(TaskTest, VirtualTimeModeRefusesToRun) {
  root->virtualTimeIs(true);
  EXPECT_EQ(task->taskShouldYieldMode(), TaskImpl::virtualTime);
  EXPECT_THROW(task->taskRunFromTest(), UnimplementedException);
  EXPECT_EQ(task->runs, 0);
  root->virtualTimeIs(false);
  EXPECT_EQ(task->taskShouldYieldMode(), TaskImpl::realTime);
}

TEST_F(TaskTest, WorkCountsKeepDecayingAverageAndSaturatingHighWaterMarks) {
  EXPECT_FALSE(task->taskWorkCountHighWaterMark().recorded());
  task->taskWorkCountInc(10);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayAvg(), 10.0f);
  task->taskWorkCountInc(20);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayAvg(), 11.0f);
  task->taskWorkCountInc(0);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayAvg(), 9.9f);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 20u);
  task->taskWorkCountInc(5000000000ull);
  EXPECT_EQ(task->taskWorkCountHighWaterMark().value(), 4294967294u);
  task->taskWorkPendingIs(4294967295u);
  TaskStat stat = task->getStats();
  EXPECT_EQ(stat.taskWorkCountTotal(), 5000000030ull);
  EXPECT_EQ(stat.taskWorkPending(), 4294967295u);
  EXPECT_EQ(stat.taskWorkPendingHighWaterMark().value(), 4294967294u);

  task->resetStats();
  stat = task->getStats();
  EXPECT_EQ(stat.taskWorkCountTotal(), 0u);
  EXPECT_FALSE(stat.taskWorkCountHighWaterMark().recorded());
  task->taskWorkCountInc(4);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayAvg(), 4.0f);
}

TEST_F(TaskTest, SuspendedTaskIsNeverQueuedAndResumingQueuesIt) {
  task->taskSuspendedIs(true);
  task->scheduleTask();
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_TRUE(task->taskStatus().taskSuspended());
  EXPECT_EQ(root->history()->event(0).display(), "scheduleSustask");
  task->taskSuspendedIs(false);
  EXPECT_TRUE(task->taskScheduled());
  root->runUntilIdle();
  EXPECT_EQ(task->runs, 1);

  // Suspending a queued task takes it off its queue.
  task->scheduleTask();
  task->taskSuspendedIs(true);
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_EQ(root->runnableTaskCount(), 0);
}

TEST_F(TaskTest, RunFromTestTakesTheTaskOffItsQueueAndRecords) {
  task->scheduleTask();
  EXPECT_TRUE(task->getStats().taskStatus().taskOnRunQueue());
  task->taskRunFromTest();
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 1u);
  EXPECT_EQ(root->runnableTaskCount(), 0);
  EXPECT_GT(task->taskLastSchedulingLatency().count(), 0);

  task->taskRunAndRecordFromTest();
  EXPECT_EQ(task->runs, 2);
  EXPECT_GT(root->schedulerLatencyHighWaterMark().count(), 0);
}

TEST_F(TaskTest, DestroyedTaskLeavesItsQueueAndRegistration) {
  task->scheduleTask();
  task.reset();
  EXPECT_EQ(root->runnableTaskCount(), 0);
  EXPECT_EQ(root->registeredTaskCount(), 0u);
  EXPECT_EQ(root->history()->event(0).display(), "delete     task");
  root->runUntilIdle();
}

TEST(TaskConstructionTest, RawSchedulerPointerNeedsSharedOwnership) {
  struct Plain : Task {
    using Task::Task;
    void taskExecute() override {}
  };
  TaskSchedulerRootManual unowned("unowned");
  EXPECT_THROW(Plain(&unowned, TaskPriority::normal, "t"), std::bad_weak_ptr);
  auto owned = std::make_shared<TaskSchedulerRootManual>("owned");
  Plain plain(owned.get(), TaskPriority::low, "plain");
  EXPECT_EQ(plain.scheduler(), owned.get());
  EXPECT_DEATH(FnTask(std::shared_ptr<TaskScheduler>(), TaskPriority::low, "x"),
               "Need a TaskScheduler");
}

TEST(TaskDeathTest, TaskDestroyedInsideItsOwnRunAborts) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  struct SelfDestroying : Task {
    using Task::Task;
    void taskExecute() override { std::destroy_at(this); }
  };
  alignas(SelfDestroying) unsigned char storage[sizeof(SelfDestroying)];
  auto* t = std::construct_at(reinterpret_cast<SelfDestroying*>(storage), root,
                              TaskPriority::normal, "selfish");
  EXPECT_DEATH(
      t->taskRunFromTest(),
      "Task: @0x[0-9a-f]+ taskMagicNumber: 3735936685 taskMagicNumberConstructed: 1119771390");
  std::destroy_at(t);
}

}  // namespace
}  // namespace Tarvo
