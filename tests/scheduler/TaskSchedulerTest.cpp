#include <gmock/gmock.h>
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
using Log = std::vector<std::string>;

class TaskSchedulerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  Log log;

  static Log repeat(int n, const std::string& name, Log tail = {}) {
    Log out(n, name);
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
  }
};

TEST_F(TaskSchedulerTest, HighYieldsToNormalAfterNineRuns) {
  auto high = loggingTask(root, TaskPriority::high, "H", log, [] { return true; });
  auto normal = loggingTask(root, TaskPriority::normal, "N", log);
  high->scheduleTask();
  normal->scheduleTask();
  for (int i = 0; i < 12; ++i) {
    root->runOnce();
  }
  EXPECT_EQ(log, repeat(9, "H", {"N", "H", "H"}));
  EXPECT_EQ(root->taskRunQueue(TaskPriority::high).consecutivePicks, 2u);
}

TEST_F(TaskSchedulerTest, NormalYieldsToLowButScavengeWaitsForEveryQueueAbove) {
  auto normal = loggingTask(root, TaskPriority::normal, "N", log, [&] { return log.size() < 20; });
  auto low = loggingTask(root, TaskPriority::low, "L", log);
  auto scavenge = loggingTask(root, TaskPriority::scavenge, "S", log);
  normal->scheduleTask();
  low->scheduleTask();
  scavenge->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(log, repeat(9, "N", repeat(1, "L", repeat(10, "N", {"S"}))));
}

TEST_F(TaskSchedulerTest, AbsoluteAlwaysRunsFirst) {
  int left = 50;
  auto absolute = loggingTask(root, TaskPriority::absolute, "A", log, [&] { return --left > 0; });
  auto high = loggingTask(root, TaskPriority::high, "H", log);
  high->scheduleTask();
  absolute->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(log, repeat(50, "A", {"H"}));
}

TEST_F(TaskSchedulerTest, RunRequestsFollowIdleAndRunnableChanges) {
  auto a = loggingTask(root, TaskPriority::normal, "a", log);
  auto b = loggingTask(root, TaskPriority::normal, "b", log);
  auto gone = loggingTask(root, TaskPriority::normal, "gone", log);
  a->scheduleTask();
  a->scheduleTask();
  b->scheduleTask();
  gone->scheduleTask();
  gone->unscheduleTask();
  EXPECT_EQ(root->runRequestCount(), 1u);
  EXPECT_EQ(root->runnableTaskCount(TaskPriority::normal), 2);

  EXPECT_TRUE(root->runOnce());
  EXPECT_EQ(root->runRequestCount(), 2u);
  EXPECT_TRUE(root->runOnce());
  EXPECT_TRUE(root->runOnce());  // finds nothing: idle, no new request
  EXPECT_FALSE(root->schedulerHasRunnableTasks());
  EXPECT_FALSE(root->runPending());
  EXPECT_EQ(root->runRequestCount(), 3u);
  EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 2u);

  a->scheduleTask();
  EXPECT_EQ(root->runRequestCount(), 4u);
  EXPECT_EQ(root->runUntilIdle(), 2u);
  EXPECT_EQ(log, (Log{"a", "b", "a"}));
}

TEST_F(TaskSchedulerTest, SplitQueuesHideNewTasksAndMergeKeepsHeldBackTasksFirst) {
  auto a = loggingTask(root, TaskPriority::normal, "a", log);
  auto b = loggingTask(root, TaskPriority::normal, "b", log);
  auto c = loggingTask(root, TaskPriority::normal, "c", log);
  a->scheduleTask();
  b->scheduleTask();
  root->taskRunQueuesMovePersistentToTemporary();
  c->scheduleTask();
  auto now = TaskClock::now();
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), a.get());
  try {
    root->taskRunQueuesMovePersistentToTemporary();
    FAIL() << "split of a split queue";
  } catch (const AssertException& e) {
    EXPECT_THAT(e.message(),
                ::testing::ContainsRegex("movePersistentToTemporary:[0-9]+: The "
                                         "temporary run queue should always be empty"));
  }
  root->taskRunQueuesMoveTemporaryToPersistent();
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), b.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), c.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), nullptr);
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
  EXPECT_TRUE(root->runPending()) << "the root asks for the next run after a throwing task";
  root->runUntilIdle();
  EXPECT_EQ(log, (Log{"good"}));
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
