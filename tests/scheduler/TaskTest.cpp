#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using Test::FnTask;
using Answers = std::vector<bool>;

class TaskTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  Answers answers;  // taskShouldYield() asked six times per run
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

TEST_F(TaskTest, QuantumIsAtMostOneSecondAndRunsCountViolationsAtTwiceAndFiveTimesIt) {
  EXPECT_EQ(task->taskQuantum(), 20ms);
  task->taskQuantumIs(1s);
  task->taskQuantumNoCheckIs(5s);
  EXPECT_EQ(task->taskQuantum(), 5s);
  EXPECT_DEATH(task->taskQuantumIs(1s + 1ns), "Quantum: 1000000001ns");
  EXPECT_DEATH(task->taskQuantumNoCheckIs(0ns), "Quantum: 0ns");
  root->defaultTaskQuantumIs(7ms);
  EXPECT_EQ(std::make_shared<FnTask>(root, TaskPriority::normal, "later")->taskQuantum(), 7ms);
  EXPECT_EQ(task->taskQuantum(), 5s);

  task->taskQuantumIs(100ms);
  struct Case {
    std::chrono::milliseconds ran;
    uint32_t v200, v500;
  };
  for (Case c : {Case{190ms, 0, 0}, Case{200ms, 1, 0}, Case{480ms, 2, 0}, Case{500ms, 2, 1}}) {
    runStartedAgo(c.ran);
    EXPECT_EQ(task->taskQuantumViolation200(), c.v200) << c.ran.count();
    EXPECT_EQ(task->taskQuantumViolation500(), c.v500) << c.ran.count();
  }
  EXPECT_GE(task->taskRunTimeHighWaterMark(), 500ms);
  EXPECT_LT(task->taskRunTimeHighWaterMark(), 550ms);
  EXPECT_GE(task->taskRunTimeTotal(), 1370ms);
  task->taskQuantumNoCheckIs(std::chrono::nanoseconds::max());  // no overflow at the thresholds
  runStartedAgo(1ms);
  EXPECT_EQ(task->taskQuantumViolation200(), 2u);
}

TEST_F(TaskTest, YieldFollowsTestRatioOrQuantumAndAbortsOutsideARun) {
  EXPECT_TRUE(task->taskShouldYield()) << "before any run the real-time rule applies";
  task->taskTestYieldRatioIs(3);
  task->taskRunFromTest();
  root->taskTestYieldRatioIs(2);  // the task's own ratio wins over the root's
  task->taskRunFromTest();
  task->taskTestYieldRatioIs(0);  // without one, the root's applies afresh
  task->taskRunFromTest();
  Answers third{false, false, true, false, false, true};
  Answers expected = third;
  expected.insert(expected.end(), third.begin(), third.end());
  expected.insert(expected.end(), {false, true, false, true, false, true});
  EXPECT_EQ(answers, expected);

  root->taskTestYieldRatioIs(0);
  answers.clear();
  task->taskQuantumIs(1s);
  runStartedAgo(0s);
  runStartedAgo(2s);
  runStartedAgo(-1h);  // a start in the future also yields
  EXPECT_EQ(answers[0], false);
  EXPECT_EQ(answers[6], true);
  EXPECT_EQ(answers[12], true);
  EXPECT_DEATH(task->taskShouldYield(), "taskCurrentlyRunning: 0 taskRunCount: 6");
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

TEST(TaskDeathTest, ConstructionNeedsAnOwnedSchedulerAndDestructionInsideARunAborts) {
  struct Plain : Task {
    using Task::Task;
    void taskExecute() override { std::destroy_at(this); }
  };
  TaskSchedulerRootManual unowned("unowned");
  EXPECT_THROW(Plain(&unowned, TaskPriority::normal, "t"), std::bad_weak_ptr);
  EXPECT_DEATH(Plain(std::shared_ptr<TaskScheduler>(), TaskPriority::low, "x"),
               "Need a TaskScheduler");

  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  alignas(Plain) unsigned char storage[sizeof(Plain)];
  auto* t = std::construct_at(reinterpret_cast<Plain*>(storage), root, TaskPriority::normal, "x");
  EXPECT_DEATH(t->taskRunFromTest(),
               "Task: @0x[0-9a-f]+ taskMagicNumber: 3735936685 taskMagicNumberConstructed: "
               "1119771390");
  std::destroy_at(t);
}

}  // namespace
}  // namespace Tarvo
