#include <gtest/gtest.h>

#include <memory>
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
  std::vector<bool> answers;
  std::shared_ptr<FnTask> task =
      std::make_shared<FnTask>(root, TaskPriority::normal, "task", [this](FnTask& t) {
        for (int i = 0; i < 6; ++i) {
          answers.push_back(t.taskShouldYield());
        }
      });

  // Runs the task as if its run had started `ago` before now.
  void runStartedAgo(std::chrono::nanoseconds ago) {
    TaskTimePoint end;
    task->taskDoRun(TaskClock::now() - ago, &end);
  }
};

TEST_F(TaskTest, QuantumLimitsAreOneSecondAndAboveZero) {
  EXPECT_EQ(task->taskQuantum(), 20ms);
  task->taskQuantumIs(1s);
  task->taskQuantumNoCheckIs(5s);
  EXPECT_EQ(task->taskQuantum(), 5s);
  EXPECT_DEATH(task->taskQuantumIs(1s + 1ns), "Quantum: 1000000001ns");
  EXPECT_DEATH(task->taskQuantumNoCheckIs(0ns), "Quantum: 0ns");
  root->defaultTaskQuantumIs(7ms);
  EXPECT_EQ(std::make_shared<FnTask>(root, TaskPriority::normal, "later")->taskQuantum(), 7ms);
  EXPECT_EQ(task->taskQuantum(), 5s);
}

TEST_F(TaskTest, ViolationsCountAtTwiceAndFiveTimesTheQuantum) {
  task->taskQuantumIs(100ms);
  runStartedAgo(190ms);
  EXPECT_EQ(task->taskQuantumViolation200(), 0u);
  runStartedAgo(200ms);
  runStartedAgo(250ms);
  runStartedAgo(480ms);
  EXPECT_EQ(task->taskQuantumViolation200(), 3u);
  EXPECT_EQ(task->taskQuantumViolation500(), 0u);
  runStartedAgo(500ms);
  runStartedAgo(2s);
  EXPECT_EQ(task->taskQuantumViolation200(), 3u);
  EXPECT_EQ(task->taskQuantumViolation500(), 2u);
  EXPECT_GE(task->taskRunTimeHighWaterMark(), 2s);
  EXPECT_LT(task->taskRunTimeHighWaterMark(), 2s + 50ms);
  EXPECT_GE(task->taskRunTimeTotal(), 3620ms);
}

TEST_F(TaskTest, TestYieldRatioYieldsOnEveryNthCall) {
  task->taskTestYieldRatioIs(3);
  task->taskRunFromTest();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));

  // The task's own ratio wins over the root's; without one the root's applies afresh.
  root->taskTestYieldRatioIs(2);
  task->taskRunFromTest();
  task->taskTestYieldRatioIs(0);
  task->taskRunFromTest();
  EXPECT_EQ(answers,
            (std::vector<bool>{false, false, true, false, false, true, false, false, true, false,
                               false, true, false, true, false, true, false, true}));
  root->taskTestYieldRatioIs(0);
  EXPECT_EQ(task->taskShouldYieldMode(), TaskImpl::realTime);
}

TEST_F(TaskTest, RealTimeYieldFollowsTheQuantumAndAbortsOutsideARun) {
  // Before any run, outside taskExecute, the real-time rule applies: long past the quantum.
  EXPECT_TRUE(task->taskShouldYield());
  task->taskQuantumIs(1s);
  runStartedAgo(0s);
  runStartedAgo(2s);
  runStartedAgo(-1h);  // a start in the future also yields
  EXPECT_EQ(answers[0], false);
  EXPECT_EQ(answers[6], true);
  EXPECT_EQ(answers[12], true);
  EXPECT_DEATH(task->taskShouldYield(), "taskCurrentlyRunning: 0 taskRunCount: 3");
}

TEST_F(TaskTest, WorkCountsKeepDecayingAverageAndSaturatingHighWaterMarks) {
  task->taskWorkCountInc(10);
  task->taskWorkCountInc(20);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayAvg(), 11.0f);
  task->taskWorkCountInc(5000000000ull);
  task->taskWorkPendingIs(4294967295u);
  TaskStat stat = task->getStats();
  EXPECT_EQ(stat.taskWorkCountTotal(), 5000000030ull);
  EXPECT_EQ(stat.taskWorkCountHighWaterMark().value(), 4294967294u);
  EXPECT_EQ(stat.taskWorkPendingHighWaterMark().value(), 4294967294u);

  task->resetStats();
  EXPECT_FALSE(task->getStats().taskWorkCountHighWaterMark().recorded());
}

TEST_F(TaskTest, SuspendResumeRunFromTestAndDestructionKeepTheQueueConsistent) {
  task->taskSuspendedIs(true);
  task->scheduleTask();
  EXPECT_FALSE(task->taskScheduled());
  EXPECT_EQ(root->history()->event(0).display(), "scheduleSustask");
  task->taskSuspendedIs(false);
  EXPECT_TRUE(task->taskScheduled());
  task->taskSuspendedIs(true);
  EXPECT_EQ(root->runnableTaskCount(), 0);
  task->taskSuspendedIs(false);
  task->taskRunFromTest();  // a queued task is taken off its queue like a pick
  EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 1u);
  EXPECT_EQ(root->runnableTaskCount(), 0);
  task->scheduleTask();
  task.reset();  // a destroyed task leaves its queue and registration
  EXPECT_EQ(root->runnableTaskCount(), 0);
  EXPECT_EQ(root->registeredTaskCount(), 0u);
}

TEST(TaskConstructionTest, RawSchedulerPointerNeedsSharedOwnership) {
  struct Plain : Task {
    using Task::Task;
    void taskExecute() override {}
  };
  TaskSchedulerRootManual unowned("unowned");
  EXPECT_THROW(Plain(&unowned, TaskPriority::normal, "t"), std::bad_weak_ptr);
  EXPECT_DEATH(Plain(std::shared_ptr<TaskScheduler>(), TaskPriority::low, "x"),
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
  EXPECT_DEATH(t->taskRunFromTest(),
               "Task: @0x[0-9a-f]+ taskMagicNumber: 3735936685 taskMagicNumberConstructed: "
               "1119771390");
  std::destroy_at(t);
}

}  // namespace
}  // namespace Tarvo
