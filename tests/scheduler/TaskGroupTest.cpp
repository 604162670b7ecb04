// Task groups: priority enforcement, turns of the parent task, nesting, test yielding and
// exceptions passing through the parent.
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using Test::FnTask;
using Test::loggingTask;
using P = TaskPriority;

class TaskGroupTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  std::string log;
  // Runs one task of the root: one turn when the group's parent task is picked.
  void turn() { ASSERT_TRUE(root->runOnce()); }
};

TEST_F(TaskGroupTest, EnforcementRejectsOtherPrioritiesAndAnOpenGroupOrdersByPriority) {
  auto strict = TaskGroupIs("strict", P::high, true, root);
  EXPECT_DEATH(FnTask(strict, P::normal, "x"),
               "taskPriority\\( normal \\) != taskGroupPriority\\( high \\)");
  EXPECT_EQ(strict->parentTask().taskName().str(), "strict;TaskGroup");
  EXPECT_EQ(strict->parentTask().taskPriority(), P::high);
  EXPECT_EQ(root->taskGroupCount(), 1u);

  auto open = TaskGroupIs("open", P::low, false, root);
  auto low = loggingTask(open, P::low, "l", log);
  auto high = loggingTask(open, P::high, "h", log);
  auto scavenge = loggingTask(open, P::scavenge, "s", log);
  scavenge->scheduleTask();
  low->scheduleTask();
  high->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(log, "hls");
  EXPECT_EQ(open->parentTaskRunCount(), 1u);
  EXPECT_EQ(open->parentTask().getStats().taskWorkCountTotal(), 3u);
  open.reset();
  strict.reset();
  EXPECT_EQ(root->taskGroupCount(), 1u);  // `open` lives on in its tasks
  low.reset();
  high.reset();
  scavenge.reset();
  EXPECT_EQ(root->taskGroupCount(), 0u);
  EXPECT_EQ(root->deadTaskStatForTest("open;TaskGroup").taskDeadCount(), 1u);
}

TEST_F(TaskGroupTest, TurnsRunOnceEachWithoutMultipleRunsAndUntilTheQuantumWithThem) {
  auto group = TaskGroupIs("g", P::normal, true, root);
  int left = 3;
  auto again = loggingTask(group, P::normal, "a", log, [&] { return --left > 0; });
  auto once = loggingTask(group, P::normal, "o", log);
  group->tasksPermittedMultipleRunsIs(false);
  again->scheduleTask();
  once->scheduleTask();
  EXPECT_TRUE(group->parentTaskScheduled());
  turn();
  EXPECT_EQ(log, "ao");  // "a" rescheduled itself but waits for the next turn
  auto late = loggingTask(group, P::normal, "l", log);
  late->scheduleTask();
  turn();
  EXPECT_EQ(log, "aoal");
  turn();
  EXPECT_EQ(log, "aoala");
  EXPECT_FALSE(group->parentTaskScheduled());
  EXPECT_FALSE(group->schedulerHasRunnableTasks());
  EXPECT_EQ(group->parentTaskRunCount(), 3u);

  // A turn cut short keeps the tasks it held back ahead of those scheduled meanwhile.
  group->taskGroupForceYieldInTestIs(true);
  auto spawner = std::make_shared<FnTask>(group, P::normal, "s", [&](FnTask&) {
    log += 's';
    once->scheduleTask();
  });
  log.clear();
  spawner->scheduleTask();
  late->scheduleTask();
  turn();
  turn();
  turn();
  EXPECT_EQ(log, "slo");
  group->taskGroupForceYieldInTestIs(false);
  EXPECT_EQ(group->parentTask().taskTestYieldRatioEffective(), 0);

  // With repeated runs a turn goes on until the parent task's quantum is used up.
  group->tasksPermittedMultipleRunsIs(true);
  int runs = 0;
  auto spin = std::make_shared<FnTask>(group, P::normal, "spin", [&](FnTask& t) {
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < 1ms) {
    }
    if (++runs < 12) {
      t.scheduleTask();
    }
  });
  group->taskGroupQuantumIs(3ms);
  const uint32_t turnsBefore = group->parentTaskRunCount();
  spin->scheduleTask();
  turn();
  EXPECT_GE(runs, 1);
  EXPECT_LE(runs, 3);
  EXPECT_TRUE(group->parentTaskScheduled());
  root->runUntilIdle();
  EXPECT_EQ(runs, 12);
  EXPECT_GE(group->parentTaskRunCount() - turnsBefore, 4u);

  runs = 0;
  group->taskGroupQuantumIs(1s);
  spin->scheduleTask();
  turn();
  EXPECT_EQ(runs, 12);
  EXPECT_FALSE(group->parentTaskScheduled());
  EXPECT_EQ(root->runUntilIdle(), 1u);  // the run that finds the root idle

  // An inner task that shortens the group's quantum or switches on test yielding ends the
  // turn it runs in.
  log.clear();
  auto shorten = std::make_shared<FnTask>(group, P::normal, "q", [&](FnTask&) {
    log += 'q';
    group->taskGroupQuantumNoCheckIs(1ns);
  });
  auto yield = std::make_shared<FnTask>(group, P::normal, "y", [&](FnTask& t) {
    log += 'y';
    t.taskForceYieldInTestIs(true);
  });
  auto last = loggingTask(group, P::normal, "z", log);
  shorten->scheduleTask();
  yield->scheduleTask();
  last->scheduleTask();
  turn();
  EXPECT_EQ(log, "q");
  group->taskGroupQuantumIs(1s);
  turn();
  EXPECT_EQ(log, "qy");
  yield->taskForceYieldInTestIs(false);
  turn();
  EXPECT_EQ(log, "qyz");
}

TEST_F(TaskGroupTest, NestedGroupsScheduleTheirParentsAndPassTestYieldingUp) {
  auto outer = TaskGroupIs("outer", P::high, false, root);
  auto inner = TaskGroupIs("inner", P::normal, false, outer);
  EXPECT_EQ(root->taskGroupCount(), 2u);
  int left = 3;
  auto deep = loggingTask(inner, P::low, "d", log, [&] { return --left > 0; });
  auto side = loggingTask(outer, P::normal, "s", log);
  deep->scheduleTask();
  EXPECT_TRUE(inner->parentTaskScheduled());
  EXPECT_TRUE(outer->parentTaskScheduled());
  EXPECT_EQ(root->runUntilIdle(), 2u);  // one outer turn ran everything, then the idle run
  EXPECT_EQ(log, "ddd");
  EXPECT_FALSE(inner->parentTaskScheduled());
  EXPECT_FALSE(outer->parentTaskScheduled());
  EXPECT_FALSE(outer->schedulerHasRunnableTasks());

  // A task yielding under test makes each enclosing parent task yield after every run.
  deep->taskForceYieldInTestIs(true);
  EXPECT_TRUE(inner->taskGroupForceYieldInTest());
  EXPECT_TRUE(outer->taskGroupForceYieldInTest());
  EXPECT_EQ(outer->parentTask().taskTestYieldRatioEffective(), 1);
  log.clear();
  left = 2;
  deep->scheduleTask();
  side->scheduleTask();
  turn();
  EXPECT_EQ(log, "d");
  root->runUntilIdle();
  EXPECT_EQ(log.size(), 3u);
  deep->taskForceYieldInTestIs(false);
  EXPECT_FALSE(inner->taskGroupForceYieldInTest());
  EXPECT_FALSE(outer->taskGroupForceYieldInTest());
  EXPECT_EQ(outer->parentTask().taskTestYieldRatioEffective(), 0);

  // The root's test ratio reaches the parent tasks the same way.
  root->taskTestYieldRatioIs(3);
  EXPECT_EQ(inner->parentTask().taskTestYieldRatioEffective(), 1);
  root->taskTestYieldRatioIs(0);
  EXPECT_EQ(inner->parentTask().taskTestYieldRatioEffective(), 0);
}

TEST_F(TaskGroupTest, ExceptionPassesThroughTheParentAndTheNextLoopCallRunsTheRest) {
  auto group = TaskGroupIs("g", P::normal, false, root);
  group->tasksPermittedMultipleRunsIs(false);
  auto bad = std::make_shared<FnTask>(group, P::normal, "bad", [&](FnTask&) {
    log += 'x';
    throw std::runtime_error("inner");
  });
  auto first = loggingTask(group, P::normal, "1", log);
  auto second = loggingTask(group, P::normal, "2", log);
  first->scheduleTask();
  bad->scheduleTask();
  second->scheduleTask();
  EXPECT_THROW(root->runUntilIdle(), std::runtime_error);
  EXPECT_EQ(log, "1x");
  EXPECT_TRUE(group->parentTaskScheduled());
  EXPECT_TRUE(group->schedulerHasRunnableTasks());
  root->runUntilIdle();
  EXPECT_EQ(log, "1x2");
  EXPECT_FALSE(group->parentTaskScheduled());
  // The split queues were merged back: a further split turn works.
  first->scheduleTask();
  group->taskGroupRunFromTest();
  EXPECT_EQ(log, "1x21");
}

}  // namespace
}  // namespace Tarvo
