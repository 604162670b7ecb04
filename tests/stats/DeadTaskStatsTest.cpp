#include <gtest/gtest.h>

#include <vector>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using Tarvo::Test::FnTask;

class DeadTaskStatsTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");

  void runAndDrop(TaskPriority priority, const std::string& name, int runs,
                  const std::string& statsName = "") {
    auto t = std::make_shared<FnTask>(root, priority, name);
    if (!statsName.empty()) {
      t->taskStatsNameIs(statsName);
    }
    for (int i = 0; i < runs; ++i) {
      t->taskRunFromTest();
    }
  }
};

TEST_F(DeadTaskStatsTest, TasksOfOneStatsNameMergeIntoOneRecord) {
  runAndDrop(TaskPriority::normal, "conn", 3);
  runAndDrop(TaskPriority::high, "conn", 4);
  runAndDrop(TaskPriority::low, "conn-42", 1, "conn");  // records go by statistics name
  TaskStat dead = root->deadTaskStatForTest("conn");
  EXPECT_EQ(dead.taskRunCount(), 8u);
  EXPECT_EQ(dead.taskDeadCount(), 3u);
  EXPECT_EQ(dead.taskPriority(), TaskPriority(TaskPriority::normal));  // the first one stored
  EXPECT_EQ(root->deadTasksPerPriority(TaskPriority::high), 1u);
  EXPECT_EQ(root->tasksPerPriority(TaskPriority::high), 0u);
  EXPECT_EQ(root->deadTaskStatForTest("conn-42").taskDeadCount(), 0u);

  // A task that opts out leaves no record but stops counting as live.
  std::make_shared<FnTask>(root, TaskPriority::scavenge, "quiet")->includeInDeadTaskIs(false);
  EXPECT_EQ(root->deadTaskStatForTest("quiet").taskName(), "");
  EXPECT_EQ(root->tasksPerPriority(TaskPriority::scavenge), 0u);
  EXPECT_EQ(root->deadTasksPerPriority(TaskPriority::scavenge), 0u);
}

TEST_F(DeadTaskStatsTest, StatsSkipTasksWithoutRunsUnlessAsked) {
  auto a = std::make_shared<FnTask>(root, TaskPriority::normal, "a");
  auto b = std::make_shared<FnTask>(root, TaskPriority::normal, "b");
  auto idle = std::make_shared<FnTask>(root, TaskPriority::normal, "idle");
  a->taskRunFromTest();
  b->taskRunFromTest();
  std::vector<TaskStat> out;
  EXPECT_EQ(root->getTaskStats(&out, false), 1u);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].taskName(), "b");  // registration order: newest first
  EXPECT_EQ(out[0].taskKey(), TaskKey(static_cast<const _TaskBase*>(b.get())));
  EXPECT_EQ(root->getTaskStats(&out, true), 0u);
  EXPECT_EQ(out.size(), 5u);

  idle.reset();
  runAndDrop(TaskPriority::normal, "ran", 1);
  out.clear();
  EXPECT_EQ(root->getDeadTaskStats(&out, false), 1u);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].taskName(), "ran");
  EXPECT_EQ(root->taskStatForTest("a").taskRunCount(), 1u);
}

}  // namespace
}  // namespace Tarvo
