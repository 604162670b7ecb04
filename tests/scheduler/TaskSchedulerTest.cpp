#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using Test::FnTask;
using Test::loggingTask;

class TaskSchedulerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  std::vector<std::string> log;
};

TEST_F(TaskSchedulerTest, HighYieldsToNormalAfterNineRuns) {
  auto high = loggingTask(root, TaskPriority::high, "H", log, [] { return true; });
  auto normal = loggingTask(root, TaskPriority::normal, "N", log);
  high->scheduleTask();
  normal->scheduleTask();
  for (int i = 0; i < 12; ++i) {
    root->runOnce();
  }
  std::vector<std::string> expected(9, "H");
  expected.push_back("N");
  expected.push_back("H");
  expected.push_back("H");
  EXPECT_EQ(log, expected);
  EXPECT_EQ(root->taskRunQueue(TaskPriority::high).consecutivePicks, 2u);
}

TEST_F(TaskSchedulerTest, NormalYieldsToLowAfterNineRunsAndScavengeWaitsForEmptyQueues) {
  auto normal = loggingTask(root, TaskPriority::normal, "N", log, [&] { return log.size() < 20; });
  auto low = loggingTask(root, TaskPriority::low, "L", log);
  auto scavenge = loggingTask(root, TaskPriority::scavenge, "S", log);
  normal->scheduleTask();
  low->scheduleTask();
  scavenge->scheduleTask();
  root->runUntilIdle();
  std::vector<std::string> expected(9, "N");
  expected.push_back("L");
  expected.insert(expected.end(), 10, "N");
  expected.push_back("S");
  EXPECT_EQ(log, expected);
}

TEST_F(TaskSchedulerTest, ScavengeStarvesWhileHighIsBusy) {
  bool keepGoing = true;
  auto high = loggingTask(root, TaskPriority::high, "H", log, [&] { return keepGoing; });
  auto scavenge = loggingTask(root, TaskPriority::scavenge, "S", log);
  high->scheduleTask();
  scavenge->scheduleTask();
  for (int i = 0; i < 100; ++i) {
    root->runOnce();
  }
  EXPECT_EQ(scavenge->runs, 0);
  keepGoing = false;
  root->runUntilIdle();
  EXPECT_EQ(scavenge->runs, 1);
  EXPECT_EQ(log.back(), "S");
}

TEST_F(TaskSchedulerTest, AbsoluteAlwaysRunsFirst) {
  int left = 50;
  auto absolute = loggingTask(root, TaskPriority::absolute, "A", log, [&] { return --left > 0; });
  auto high = loggingTask(root, TaskPriority::high, "H", log);
  auto normal = loggingTask(root, TaskPriority::normal, "N", log);
  normal->scheduleTask();
  high->scheduleTask();
  absolute->scheduleTask();
  root->runUntilIdle();
  std::vector<std::string> expected(50, "A");
  expected.push_back("H");
  expected.push_back("N");
  EXPECT_EQ(log, expected);
}

TEST_F(TaskSchedulerTest, RunRequestsFollowIdleAndRunnableChanges) {
  auto a = loggingTask(root, TaskPriority::normal, "a", log);
  auto b = loggingTask(root, TaskPriority::normal, "b", log);
  EXPECT_EQ(root->runRequestCount(), 0u);
  a->scheduleTask();
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(root->runRequestCount(), 1u);
  EXPECT_EQ(root->runnableTaskCount(TaskPriority::normal), 2);

  EXPECT_TRUE(root->runOnce());
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
  EXPECT_EQ(root->runRequestCount(), 2u);
  EXPECT_TRUE(root->runOnce());
  EXPECT_TRUE(root->runOnce());  // finds nothing
  EXPECT_FALSE(root->schedulerHasRunnableTasks());
  EXPECT_FALSE(root->runPending());
  EXPECT_EQ(root->runRequestCount(), 3u);
  EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 2u);

  a->scheduleTask();
  EXPECT_EQ(root->runRequestCount(), 4u);
  EXPECT_EQ(root->runUntilIdle(), 2u);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "a"}));
}

TEST_F(TaskSchedulerTest, UnscheduledTaskLowersRunnableCountOnly) {
  auto a = loggingTask(root, TaskPriority::low, "a", log);
  a->scheduleTask();
  EXPECT_TRUE(a->taskScheduled());
  EXPECT_TRUE(a->taskBusy());
  a->unscheduleTask();
  EXPECT_FALSE(a->taskScheduled());
  EXPECT_FALSE(a->taskBusy());
  EXPECT_EQ(root->runnableTaskCount(), 0);
  EXPECT_EQ(root->runTaskCount(TaskPriority::low), 0u);
  root->runUntilIdle();
  EXPECT_TRUE(log.empty());
}

TEST_F(TaskSchedulerTest, SplitQueuesHideNewTasksAndMergeKeepsHeldBackTasksFirst) {
  auto a = loggingTask(root, TaskPriority::normal, "a", log);
  auto b = loggingTask(root, TaskPriority::normal, "b", log);
  auto c = loggingTask(root, TaskPriority::normal, "c", log);
  auto d = loggingTask(root, TaskPriority::normal, "d", log);
  a->scheduleTask();
  b->scheduleTask();
  root->taskRunQueuesMovePersistentToTemporary();
  c->scheduleTask();
  auto now = TaskClock::now();
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), a.get());
  d->scheduleTask();
  root->taskRunQueuesMoveTemporaryToPersistent();
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), b.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), c.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), d.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), nullptr);
  EXPECT_EQ(root->pickOneTask(now, TaskPriority(TaskPriority::oneBeyondLast)), nullptr);
}

TEST_F(TaskSchedulerTest, SplitOfNonEmptyTemporaryQueueNamesTheOperation) {
  auto a = loggingTask(root, TaskPriority::high, "a", log);
  a->scheduleTask();
  root->taskRunQueuesMovePersistentToTemporary();
  try {
    root->taskRunQueuesMovePersistentToTemporary();
    FAIL() << "no exception";
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("movePersistentToTemporary"), std::string::npos);
    EXPECT_NE(e.message().find("The temporary run queue should always be empty at this point"),
              std::string::npos);
  }
}

TEST_F(TaskSchedulerTest, ThrowingTaskClearsCurrentTaskAndLeavesSchedulerUsable) {
  TaskKey seen;
  auto bad = std::make_shared<FnTask>(root, TaskPriority::normal, "bad", [&](FnTask&) {
    seen = root->currentTask();
    throw std::runtime_error("boom");
  });
  auto good = loggingTask(root, TaskPriority::normal, "good", log);
  bad->scheduleTask();
  good->scheduleTask();
  EXPECT_THROW(root->runOnce(), std::runtime_error);
  EXPECT_EQ(seen, TaskKey(static_cast<const _TaskBase*>(bad.get())));
  EXPECT_EQ(root->currentTask(), TaskKey());
  EXPECT_FALSE(bad->taskCurrentlyRunning());
  EXPECT_FALSE(root->runPending());
  root->requestSchedulerRun();
  root->runUntilIdle();
  EXPECT_EQ(log, (std::vector<std::string>{"good"}));
}

TEST_F(TaskSchedulerTest, RunKeepsTaskAliveWhenItsOwnerLetsGo) {
  std::shared_ptr<FnTask> owner;
  bool alive = false;
  owner = std::make_shared<FnTask>(root, TaskPriority::normal, "once", [&](FnTask& t) {
    owner.reset();
    alive = t.taskMagicNumber() == TaskImpl::taskMagicNumberConstructed;
  });
  owner->scheduleTask();
  root->runUntilIdle();
  EXPECT_TRUE(alive);
  EXPECT_EQ(root->registeredTaskCount(), 0u);
  EXPECT_EQ(root->deadTaskStatForTest("once").taskRunCount(), 1u);
}

TEST_F(TaskSchedulerTest, RegistrationCountsTasksPerPriority) {
  auto a = loggingTask(root, TaskPriority::low, "a", log);
  {
    auto b = loggingTask(root, TaskPriority::low, "b", log);
    EXPECT_EQ(root->tasksPerPriority(TaskPriority::low), 2u);
    EXPECT_EQ(root->registeredTaskCount(), 2u);
    EXPECT_EQ(root->registeredTasks().front(), b.get());  // newest first
  }
  EXPECT_EQ(root->tasksPerPriority(TaskPriority::low), 1u);
  EXPECT_EQ(root->deadTasksPerPriority(TaskPriority::low), 1u);
  EXPECT_EQ(root->tasksPerPriority(TaskPriority::high), 0u);
}

TEST_F(TaskSchedulerTest, ForceYieldBookkeepingReportsEmptyToNonEmptyChanges) {
  struct CountingRoot : TaskSchedulerRootManual {
    using TaskSchedulerRootManual::TaskSchedulerRootManual;
    void handleTaskForceYieldInTest() override { ++calls; }
    int calls = 0;
  };
  auto counting = std::make_shared<CountingRoot>("counting");
  auto a = loggingTask(counting, TaskPriority::normal, "a", log);
  auto b = loggingTask(counting, TaskPriority::normal, "b", log);
  a->taskForceYieldInTestIs(true);
  b->taskTestYieldRatioIs(4);
  EXPECT_EQ(counting->calls, 1);
  EXPECT_TRUE(counting->tasksForceYieldInTest());
  a->taskForceYieldInTestIs(false);
  EXPECT_EQ(counting->calls, 1);
  b.reset();  // a dying task leaves the set
  EXPECT_EQ(counting->calls, 2);
  EXPECT_FALSE(counting->tasksForceYieldInTest());
}

TEST(TaskSchedulerDeathTest, MisuseOfCountsAndPrioritiesAborts) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  EXPECT_DEATH(root->tasksPerPriorityDec(TaskPriority::normal), "Priority: normal count: 0");
  EXPECT_DEATH(root->runnableTaskCount(TaskPriority(5)), "invalidPriority=5");
  EXPECT_DEATH(root->runTaskCount(TaskPriority(9)), "invalidPriority=9");
  EXPECT_DEATH(FnTask(root, TaskPriority(5), "bad"), "invalidPriority=5");
}

}  // namespace
}  // namespace Tarvo
