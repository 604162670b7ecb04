// Queue statistics, the two statistics resets and the text report.
#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using S = TaskStat::TaskStatus;
using Test::FnTask;

const std::string kTableHeader =
    "TaskName SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
    "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n";

TEST(ReportTest, EmptySchedulerAndNeverRunTaskGoldenText) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto group = TaskGroupIs("g", TaskPriority::normal, false, root);
  // A width and fill left on the caller's stream change nothing in the text, and the width
  // is used up as by any output.
  std::ostringstream os;
  os << std::setfill('*');
  os.width(100);
  group->printStats(os, false, false, 10, 0, 1);
  EXPECT_EQ(os.width(), 0);
  EXPECT_EQ(os.str(),
            "Priority RunnableCount     IdleCount DeadCount   TotalRunCount\n"
            "absolute             0             0         0               0\n"
            "high                 0             0         0               0\n"
            "normal               0             0         0               0\n"
            "low                  0             0         0               0\n"
            "scavenge             0             0         0               0\n"
            "Maximum scheduler slip 0.000000 seconds\n"
            "\n"
            "SP                = Task status and priority % two characters:\n"
            "   first            T/t for active/idle timers, * for running task or blank\n"
            "   second           priority and runnable status, upper case for runnable\n"
            "RunCount          = Number of times task has run\n"
            "TotalSec          = Total run time in seconds\n"
            "LastDelay         = Scheduling delay last time task ran, in seconds\n"
            "MaxDelay          = Maximum scheduling delay encountered, in seconds\n"
            "200% 500%         = Number of times task used this percentage of quantum\n"
            "MaxMs             = Maximum single run time in milliseconds\n"
            "TotalWorkCount    = Counter of total work units processed\n"
            "DecayAvgWorkCount =    exponential decaying average of work units processed\n"
            "MaxWorkCount      =    high watermark of work units processed in one run\n"
            "LastWorkPending   = Work units pending processing\n"
            "MaxWorkPending    =    high watermark of work units pending processing\n"
            "\n" +
                kTableHeader +
                "Scheduler history for non root scheduler included in root scheduler\n");

  // One task that never ran is skipped, in the singular.
  auto idle = std::make_shared<FnTask>(group, TaskPriority::normal, "idle");
  os.str("");
  group->printStats(os, false, false, 10, 0, 0);
  const std::string tail = kTableHeader + "Skipped 1 task with no runs\n";
  ASSERT_GT(os.str().size(), tail.size());
  EXPECT_EQ(os.str().substr(os.str().size() - tail.size()), tail);
}

TaskStat record(ConstStringCache& cache, const char* name, uint8_t status, TaskPriority priority,
                uint32_t runs, nanoseconds total, nanoseconds last, nanoseconds maxDelay,
                uint32_t v200, uint32_t v500, nanoseconds longest) {
  return TaskStat(cache.intern(name), TaskKey(uintptr_t{0x40}), priority, runs, total, 1234, 12.34f,
                  TaskMaybeU32(99), 3, TaskMaybeU32(), v500, v200, longest, last, maxDelay,
                  S(status));
}

TEST(ReportTest, TablesSortTruncateSkipAndShowDeadRecordsAndPlaceholders) {
  ConstStringCache cache;
  using P = TaskPriority;
  std::vector<TaskStat> live = {
      record(cache, "c", 0, P::low, 1, 1ms, 0ns, 0ns, 0, 0, 0ns),
      record(cache, "alpha", 0, P::normal, 10, 5500us, 1ms, 2500us, 1, 0, 1900us),
      record(cache, "d", 0, P::low, 1, 2ms, 0ns, 0ns, 0, 0, 0ns),
      record(cache, "connection-handler-7", S::taskOnRunQueueBit, P::high, 3, 7ms, 500us, 12500us,
             0, 2, 6700us),
      record(cache, "e", 0, P::low, 1, 500us, 0ns, 0ns, 0, 0, 0ns)};
  std::vector<TaskStat> dead = {
      record(cache, "gone", S::taskTimerBit, P::low, 8, 250ms, 1us, 1500ms, 0, 0, 250900us)};
  dead[0].taskDeadCountIs(4);
  TaskSchedulerQueueStats queues;
  queues[P::high] = {P::high, 1, 2, 3, 4};

  std::ostringstream os;
  os << std::hex << std::left << std::setfill('*') << std::setprecision(2);  // changes nothing
  printStatsImpl(os, queues, 12345679ns, &live, 2, &dead, 0, true, 2, 5);
  const std::string text = os.str();
  EXPECT_EQ(text.substr(0, text.find("\n\n") + 1),
            "Priority RunnableCount     IdleCount DeadCount   TotalRunCount\n"
            "high                 1             2         3               4\n"
            "Maximum scheduler slip 0.012346 seconds\n");
  EXPECT_NE(text.find("Dead              = Number of times a task with this name has died\n"
                      "TotalWorkCount "),
            std::string::npos);
  EXPECT_EQ(
      text.substr(text.find("TaskName ")),
      "TaskName             SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n"
      "connection-handler-7  H          3         0.007  0.001   0.013    0    2     6          "
      ".        .      .         .          .\n"
      "alpha                 n         10         0.005  0.001   0.003    1    0     1          "
      ".        .      .         .          .\n"
      "Skipped 2 tasks with no runs\n"
      "Truncated 3 tasks due to requested limit\n"
      "\n"
      "TaskName (Dead tasks) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Dead "
      "Total/DecayA/Max-WorkCount Last/Max-WorkPending\n"
      "gone                  tl          8         0.250  0.000   1.500    0    0   250    4    "
      "   1234     12.3     99         3          -\n");

  // Without dead records there is neither a dead table nor its legend line.
  os.str("");
  printStatsImpl(os, queues, 0ns, &live, 0, nullptr, 0, false, 0, 0);
  EXPECT_EQ(os.str().find("Dead "), std::string::npos);
  EXPECT_NE(os.str().find("Truncated 5 tasks due to requested limit\n"), std::string::npos);

  // No live records at all is refused before anything is written.
  os.str("");
  EXPECT_THROW(printStatsImpl(os, queues, 0ns, nullptr, 0, &dead, 0, false, 0, 0),
               std::invalid_argument);
  EXPECT_EQ(os.str(), "");
}

TEST(QueueStatsTest, CountsFollowRegistrationRunsAndDeathsAndSumOverTheTree) {
  using P = TaskPriority;
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto group = TaskGroupIs("g", P::low, false, root);
  auto a = std::make_shared<FnTask>(root, P::normal, "a");
  auto b = std::make_shared<FnTask>(root, P::normal, "b");
  auto inner = std::make_shared<FnTask>(group, P::high, "inner");
  a->scheduleTask();
  b->scheduleTask();
  root->runOnce();
  auto gone = std::make_shared<FnTask>(root, P::normal, "gone");
  gone.reset();
  auto quiet = std::make_shared<FnTask>(root, P::normal, "quiet");
  quiet->includeInDeadTaskIs(false);
  quiet.reset();

  TaskSchedulerQueueStats stats = root->queueStats();
  ASSERT_EQ(stats.size(), 5u);
  EXPECT_EQ(stats[P::normal], (TaskSchedulerPriorityStats{P::normal, 1, 1, 1, 1}));
  // The group's parent task lives in the root at the group's priority.
  EXPECT_EQ(stats[P::low], (TaskSchedulerPriorityStats{P::low, 0, 1, 0, 0}));
  EXPECT_EQ(group->queueStats()[P::high], (TaskSchedulerPriorityStats{P::high, 0, 1, 0, 0}));

  inner->scheduleTask();
  root->runUntilIdle();
  TaskSchedulerQueueStats tree = root->queueStatsRoot();
  EXPECT_EQ(tree[P::normal], (TaskSchedulerPriorityStats{P::normal, 0, 2, 1, 2}));
  EXPECT_EQ(tree[P::high], (TaskSchedulerPriorityStats{P::high, 0, 1, 0, 1}));
  EXPECT_EQ(tree[P::low], (TaskSchedulerPriorityStats{P::low, 0, 1, 0, 1}));

  TaskSchedulerQueueStats partial;
  partial[P::scavenge] = {P::scavenge, 1, 0, 0, 0};
  partial += tree;
  EXPECT_EQ(partial.size(), 5u);
  EXPECT_EQ(partial[P::scavenge].runnable, 1u);

  EXPECT_DEATH(root->deadTasksPerPriorityDec(P::high), "Priority: high count: 0");
  TaskSchedulerPriorityStats mine{P::high};
  EXPECT_DEATH(mine += TaskSchedulerPriorityStats{P::normal}, "high != normal");
}

TEST(ResetStatsTest, IncrementalResetTakesOneStepPerTaskAndClearsQueueFiguresLast) {
  using P = TaskPriority;
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  std::vector<std::shared_ptr<FnTask>> tasks;
  for (const char* name : {"a", "b", "c"}) {
    tasks.push_back(std::make_shared<FnTask>(root, P::normal, name));
    tasks.back()->scheduleTask();
  }
  std::make_shared<FnTask>(root, P::low, "dead")->taskRunFromTest();
  root->runUntilIdle();
  ASSERT_EQ(root->runTaskCount(P::normal), 3u);
  EXPECT_FALSE(root->resetStatsInProgress());

  root->resetStats();
  ASSERT_NE(root->resetStatsTask(), nullptr);
  EXPECT_EQ(root->resetStatsTask()->taskName().str(), "root;ResetStats");
  root->resetStatsTask()->taskTestYieldRatioIs(1);  // a quantum that admits one task per run
  auto reset = [&] {
    return std::count_if(tasks.begin(), tasks.end(),
                         [](auto& t) { return t->taskRunCount() == 0; });
  };
  for (long step = 1; step <= 3; ++step) {
    EXPECT_TRUE(root->resetStatsInProgress());
    EXPECT_NE(root->runTaskCount(P::normal), 0u);
    EXPECT_EQ(root->deadTasksPerPriority(P::low), 1u);
    ASSERT_TRUE(root->runOnce());
    EXPECT_EQ(reset(), step);
  }
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(root->runTaskCount(P::normal), 0u);
  EXPECT_EQ(root->deadTasksPerPriority(P::low), 0u);
  EXPECT_EQ(root->deadTaskStatForTest("dead").taskDeadCount(), 0u);
  EXPECT_EQ(root->resetStatsTask()->taskWorkCountHighWaterMark().value(), 1u);

  // A group that admits one priority resets through a task of that priority; the root
  // reports the group's reset as its own.
  auto strict = TaskGroupIs("strict", P::high, true, root);
  strict->resetStats();
  EXPECT_EQ(strict->resetStatsTask()->taskPriority(), P::high);
  EXPECT_TRUE(root->resetStatsInProgress());
  root->runUntilIdle();
  EXPECT_FALSE(root->resetStatsInProgress());

  // clearStats resets everything at once.
  tasks[0]->scheduleTask();
  root->runUntilIdle();
  root->clearStats();
  EXPECT_EQ(tasks[0]->taskRunCount(), 0u);
  EXPECT_EQ(root->runTaskCount(P::normal), 0u);
  EXPECT_EQ(root->schedulerLatencyHighWaterMark(), 0ns);
}

}  // namespace
}  // namespace Tarvo
