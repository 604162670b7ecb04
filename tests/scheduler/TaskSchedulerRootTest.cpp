#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "Tarvo/TaskScheduler.h"
#include "common/TestSupport.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using Tarvo::Test::FnTask;

void scheduleFromThread(const std::shared_ptr<FnTask>& task, const char* threadName) {
  std::thread t([&] {
    pthread_setname_np(pthread_self(), threadName);
    task->scheduleTask();
  });
  t.join();
}

TEST(TaskSchedulerRootDeathTest, ForeignThreadAbortsNamingBothThreads) {
  EXPECT_DEATH(
      {
        pthread_setname_np(pthread_self(), "owner");
        auto root = std::make_shared<TaskSchedulerRootManual>("root");
        auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "t");
        scheduleFromThread(task, "intruder");
      },
      "Executing in wrong thread [0-9]+\\(intruder\\) pid [0-9]+ scheduler belongs to thread "
      "[0-9]+\\(owner\\) pid [0-9]+");
}

TEST(TaskSchedulerRootTest, ThreadCheckStandsDownWhenDisabledAndInForkedChild) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "t");

  root->threadSanityDisabledIs(true);
  scheduleFromThread(task, "other");
  EXPECT_TRUE(task->taskScheduled());
  root->threadSanityDisabledIs(false);
  task->unscheduleTask();

  auto child = Tarvo::Test::runInChild([&] {
    scheduleFromThread(task, "child");
    return task->taskScheduled() ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST(TaskSchedulerRootTest, SuspendedRootIgnoresRunsAndResumingRequestsOne) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  std::vector<std::string> log;
  auto a = Tarvo::Test::loggingTask(root, TaskPriority::normal, "a", log);
  auto b = Tarvo::Test::loggingTask(root, TaskPriority::normal, "b", log);
  root->suspendedIs(true);
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(root->runUntilIdle(), 1u);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(root->history()->event(0).display(), "schedulerRunIgnoredWhileSuspended root");
  uint64_t requests = root->runRequestCount();
  root->suspendedIs(false);
  EXPECT_EQ(root->runRequestCount(), requests + 1);
  root->runUntilIdle();
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
}

TEST(TaskSchedulerRootTest, RunSwitchesVirtualTimeOff) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "t",
                                       [](FnTask& t) { EXPECT_FALSE(t.taskShouldYield()); });
  root->virtualTimeIs(true);
  EXPECT_EQ(task->taskShouldYieldMode(), TaskImpl::virtualTime);
  task->scheduleTask();
  root->runUntilIdle();
  EXPECT_FALSE(root->virtualTime());
  EXPECT_EQ(task->runs, 1);
}

TEST(TaskSchedulerRootTest, RegistryCountsSchedulersGroupsAndTasks) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto other = std::make_shared<TaskSchedulerRootManual>("other");
  auto a = std::make_shared<FnTask>(root, TaskPriority::normal, "a");
  auto b = std::make_shared<FnTask>(other, TaskPriority::normal, "b");
  auto c = std::make_shared<FnTask>(other, TaskPriority::low, "c");
  EXPECT_EQ(root->taskGroupCount(), 0u);
  root->registerScheduler(other.get());
  EXPECT_EQ(root->taskGroupCount(), 1u);
  EXPECT_EQ(root->totalRegisteredTaskCount(), 3u);
  EXPECT_DEATH(root->registerScheduler(other.get()), "insert failed for other");
  root->unregisterScheduler(other.get());
  EXPECT_EQ(root->taskGroupCount(), 0u);
  EXPECT_DEATH(root->unregisterScheduler(other.get()), "delete failed for other");
}

}  // namespace
}  // namespace Tarvo
