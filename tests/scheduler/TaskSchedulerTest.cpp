#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

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
  std::string log;
};

TEST_F(TaskSchedulerTest, HighYieldsToNormalAfterNineRuns) {
  auto high = loggingTask(root, TaskPriority::high, "H", log, [] { return true; });
  auto normal = loggingTask(root, TaskPriority::normal, "N", log);
  high->scheduleTask();
  normal->scheduleTask();
  for (int i = 0; i < 12; ++i) {
    root->runOnce();
  }
  EXPECT_EQ(log, "HHHHHHHHHNHH");
  EXPECT_EQ(root->taskRunQueue(TaskPriority::high).consecutivePicks, 2u);
}

TEST_F(TaskSchedulerTest, LowGetsTurnsScavengeWaitsForAllAndAbsoluteNeverYields) {
  auto normal = loggingTask(root, TaskPriority::normal, "N", log, [&] { return log.size() < 20; });
  auto low = loggingTask(root, TaskPriority::low, "L", log);
  auto scavenge = loggingTask(root, TaskPriority::scavenge, "S", log);
  normal->scheduleTask();
  low->scheduleTask();
  scavenge->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(log, std::string(9, 'N') + "L" + std::string(10, 'N') + "S");

  log.clear();
  auto absolute =
      loggingTask(root, TaskPriority::absolute, "A", log, [&] { return log.size() < 50; });
  low->scheduleTask();
  absolute->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(log, std::string(50, 'A') + "L");
}

TEST_F(TaskSchedulerTest, RunRequestsFollowIdleAndRunnableChanges) {
  auto a = loggingTask(root, TaskPriority::normal, "a", log);
  auto b = loggingTask(root, TaskPriority::normal, "b", log);
  auto gone = loggingTask(root, TaskPriority::normal, "x", log);
  a->scheduleTask();
  a->scheduleTask();
  b->scheduleTask();
  gone->scheduleTask();
  gone->unscheduleTask();
  EXPECT_EQ(root->runRequestCount(), 1u);
  EXPECT_EQ(root->runnableTaskCount(TaskPriority::normal), 2);

  EXPECT_EQ(root->runUntilIdle(), 3u);  // the third run finds nothing: idle, no new request
  EXPECT_FALSE(root->schedulerHasRunnableTasks());
  EXPECT_EQ(root->runRequestCount(), 3u);
  EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 2u);
  a->scheduleTask();
  EXPECT_EQ(root->runRequestCount(), 4u);
  EXPECT_EQ(root->runUntilIdle(), 2u);
  EXPECT_EQ(log, "aba");
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
  EXPECT_THAT([&] { root->taskRunQueuesMovePersistentToTemporary(); },
              ::testing::ThrowsMessage<AssertException>(::testing::ContainsRegex(
                  "movePersistentToTemporary:[0-9]+: The temporary run queue should always be "
                  "empty at this point")));
  root->taskRunQueuesMoveTemporaryToPersistent();
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), b.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), c.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), nullptr);
}

TEST_F(TaskSchedulerTest, RunSurvivesThrowingTasksAndOwnersLettingGo) {
  TaskKey seen;
  auto bad = std::make_shared<FnTask>(root, TaskPriority::normal, "bad", [&](FnTask&) {
    seen = root->currentTask();
    throw std::runtime_error("boom");
  });
  std::shared_ptr<FnTask> owner;
  bool alive = false;
  owner = std::make_shared<FnTask>(root, TaskPriority::normal, "once", [&](FnTask& t) {
    owner.reset();
    alive = t.taskMagicNumber() == TaskImpl::taskMagicNumberConstructed;
  });
  bad->scheduleTask();
  owner->scheduleTask();
  EXPECT_THROW(root->runOnce(), std::runtime_error);
  EXPECT_EQ(seen, TaskKey(static_cast<const _TaskBase*>(bad.get())));
  EXPECT_EQ(root->currentTask(), TaskKey());
  EXPECT_FALSE(bad->taskCurrentlyRunning());
  EXPECT_TRUE(root->runPending()) << "the root asks for the next run after a throwing task";
  root->runUntilIdle();
  EXPECT_TRUE(alive);
  EXPECT_EQ(root->registeredTaskCount(), 1u);
  EXPECT_EQ(root->deadTaskStatForTest("once").taskRunCount(), 1u);
}

TEST_F(TaskSchedulerTest, ForceYieldBookkeepingReportsEmptyToNonEmptyChanges) {
  struct CountingRoot : TaskSchedulerRootManual {
    using TaskSchedulerRootManual::TaskSchedulerRootManual;
    void handleTaskForceYieldInTest() override { ++calls; }
    int calls = 0;
  };
  auto counting = std::make_shared<CountingRoot>("counting");
  auto a = std::make_shared<FnTask>(counting, TaskPriority::normal, "a");
  auto b = std::make_shared<FnTask>(counting, TaskPriority::normal, "b");
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
