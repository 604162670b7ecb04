#include <gtest/gtest.h>
#include <pthread.h>

#include <string>
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

TEST(TaskSchedulerRootTest, ForeignThreadAbortsUnlessCheckDisabledOrInForkedChild) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "t");
  // A death test runs in a forked child, where the check stands down: build the root there.
  EXPECT_DEATH(
      scheduleFromThread(std::make_shared<FnTask>(std::make_shared<TaskSchedulerRootManual>("r"),
                                                  TaskPriority::normal, "t"),
                         "intruder"),
      "Executing in wrong thread [0-9]+\\(intruder\\) pid [0-9]+ scheduler belongs to "
      "thread [0-9]+\\(" +
          TaskSchedulerRoot::currentThreadName() + "\\) pid [0-9]+");

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

TEST(TaskSchedulerRootTest, SuspendedRootIgnoresRunsAndResumingRequestsOneThatEndsVirtualTime) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  std::string log;
  auto a = Tarvo::Test::loggingTask(root, TaskPriority::normal, "a", log);
  auto b = std::make_shared<FnTask>(root, TaskPriority::normal, "b", [&](FnTask& t) {
    log += "b";
    EXPECT_FALSE(t.taskShouldYield());  // throws while virtual time is on
  });
  root->suspendedIs(true);
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(root->runUntilIdle(), 1u);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(root->history()->event(0).display(), "schedulerRunIgnoredWhileSuspended root");
  root->virtualTimeIs(true);
  EXPECT_EQ(b->taskShouldYieldMode(), TaskImpl::virtualTime);
  uint64_t requests = root->runRequestCount();
  root->suspendedIs(false);
  EXPECT_EQ(root->runRequestCount(), requests + 1);
  root->runUntilIdle();
  EXPECT_EQ(log, "ab");
  EXPECT_FALSE(root->virtualTime());
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
