#include <gtest/gtest.h>

#include <iomanip>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "Tarvo/ConstStringCache.h"
#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskStat.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using S = TaskStat::TaskStatus;
using Test::FnTask;

TEST(ConstStringCacheTest, EqualStringsShareOneCountedElementAndMisuseIsReported) {
  auto cache = std::make_unique<ConstStringCache>();
  {
    ConstStringRef a = cache->intern("name");
    ConstStringRef b = cache->intern(std::string("na") + "me");
    EXPECT_EQ(a.elem(), b.elem());
    ConstStringRef c = a;
    c = cache->intern("other");
    EXPECT_EQ(a.elem()->refCount(), 2u);
    EXPECT_EQ(cache->size(), 2u);
  }
  EXPECT_EQ(cache->size(), 0u);
  ConstStringRef::Elem loose(cache.get(), "loose");
  EXPECT_THROW(loose.refCountDec(), AssertException);

  // A reference that outlives its cache on purpose, never released.
  alignas(ConstStringRef) unsigned char storage[sizeof(ConstStringRef)];
  std::construct_at(reinterpret_cast<ConstStringRef*>(storage), cache->intern("open"));
  ::testing::internal::CaptureStderr();
  cache.reset();
  EXPECT_NE(::testing::internal::GetCapturedStderr().find(
                "Destroying ConstStringCache with open references"),
            std::string::npos);
}

TaskStat record(ConstStringRef name, uint32_t runs, TaskMaybeU32 workHigh, int64_t runHigh,
                uint8_t status = 0, TaskPriority priority = TaskPriority::high) {
  return TaskStat(std::move(name), TaskKey(uintptr_t{0x10}), priority, runs,
                  nanoseconds(100 * runs), 7 * runs, 1.5f * runs, workHigh, runs + 1, workHigh, 1,
                  2, nanoseconds(runHigh), nanoseconds(runs), nanoseconds(runHigh * 2), S(status));
}

TEST(TaskStatTest, StatusStringRanksStatesAndMergeSumsCountsKeepsMaximaAndAddsOneDeath) {
  EXPECT_EQ(TaskStat().taskName() + TaskStat().taskStatusString(), " a");
  uint8_t timer = S::taskTimerBit, armed = S::taskTimerRunningBit, queued = S::taskOnRunQueueBit;
  uint8_t running = S::taskCurrentlyRunningBit, suspended = S::taskSuspendedBit;
  using P = TaskPriority;
  for (auto [bits, priority, expected] :
       {std::tuple{timer | armed | queued, P::high, "TH"}, std::tuple{timer | armed, P::high, "Th"},
        std::tuple{timer | queued, P::high, "tH"},
        std::tuple{running | suspended | timer, P::normal, "*n"},
        std::tuple{suspended | timer | queued, P::scavenge, "SS"}}) {
    EXPECT_EQ(record({}, 0, 0, 0, uint8_t(bits), priority).taskStatusString(), expected);
  }

  // Merging sums counts, keeps the latest status and the maxima, and adds one death.
  ConstStringCache cache;
  ConstStringRef name = cache.intern("conn");
  TaskStat a = record(name, 3, TaskMaybeU32(), 50, 1);
  a.taskDeadCountIs(1);
  TaskStat b = record(name, 4, TaskMaybeU32(9), 20, 2);
  b.taskDeadCountIs(5);
  a += b;
  EXPECT_EQ(a.taskRunCount(), 7u);
  EXPECT_EQ(a.taskQuantumViolation200(), 4u);
  EXPECT_FLOAT_EQ(a.taskWorkCountDecayAvg(), 6.0f);
  EXPECT_EQ(a.taskStatus().value(), 2);
  EXPECT_EQ(a.taskRunTimeHighWaterMark(), nanoseconds(50));
  EXPECT_EQ(a.taskSchedulingLatencyHighWaterMark(), nanoseconds(100));
  EXPECT_EQ(a.taskWorkCountHighWaterMark().value(), 9u);
  EXPECT_EQ(a.taskDeadCount(), 2u);
  a += record(name, 1, TaskMaybeU32(), 1);  // an unrecorded mark never replaces a recorded one
  EXPECT_EQ(a.taskWorkCountHighWaterMark().value(), 9u);
  EXPECT_EQ(a.taskDeadCount(), 3u);
  EXPECT_DEATH(a += record(cache.intern("other"), 1, 0, 0), "conn != other");
}

class StatsTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  TaskSchedulerHistory& history = *root->history();

  std::shared_ptr<FnTask> ranTask(TaskPriority priority, const std::string& name, int runs) {
    auto t = std::make_shared<FnTask>(root, priority, name);
    for (int i = 0; i < runs; ++i) {
      t->taskRunFromTest();
    }
    return t;
  }
  // Inserts `n` scheduler events at `first`, `first` + 1 ... microseconds.
  void insertEvents(int first, int n) {
    for (int i = first; i < first + n; ++i) {
      history.insert(TaskTimePoint(std::chrono::microseconds(i)),
                     TaskSchedulerEventType::schedulerIdle, root.get());
    }
  }
  std::string printed(unsigned limit) {
    std::ostringstream os;
    root->printHistory(os, limit);
    return os.str();
  }
  static std::string header(unsigned n) {
    std::string h = "Last " + std::to_string(n) +
                    " scheduler events, absolute timestamp and relative to last event\n";
    return h + std::string(h.size() - 1, '-') + "\n";
  }
  static std::string line(int64_t ns, int64_t us, const std::string& display) {
    std::ostringstream os;
    os << std::setw(22) << ns << " ns since boot " << std::setw(10) << us << " \u00b5s " << display
       << "\n";
    return os.str();
  }
};

TEST_F(StatsTest, TasksOfOneStatsNameMergeIntoOneDeadRecordAndListingsSkipIdleTasks) {
  ranTask(TaskPriority::normal, "conn", 3);
  ranTask(TaskPriority::high, "conn", 4);
  ranTask(TaskPriority::low, "conn-42", 1)->taskStatsNameIs("conn");  // records go by stats name
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

  // Listings skip tasks that never ran unless asked.
  auto a = ranTask(TaskPriority::normal, "a", 1);
  auto b = ranTask(TaskPriority::normal, "b", 1);
  auto idle = ranTask(TaskPriority::normal, "idle", 0);
  std::vector<TaskStat> out;
  EXPECT_EQ(root->getTaskStats(&out, false), 1u);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].taskName(), "b");  // registration order: newest first
  EXPECT_EQ(out[0].taskKey(), TaskKey(static_cast<const _TaskBase*>(b.get())));
  EXPECT_EQ(root->getTaskStats(&out, true), 0u);
  EXPECT_EQ(out.size(), 5u);

  idle.reset();
  out.clear();
  EXPECT_EQ(root->getDeadTaskStats(&out, false), 1u);  // "idle" never ran
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].taskName(), "conn");
}

TEST_F(StatsTest, HistoryPrintsNewestFirstTruncatesAtTheLimitAndKeepsTheNewest) {
  root->clearHistory();
  EXPECT_EQ(printed(TaskSchedulerHistory::noLimit), header(100) + "\n");

  // Three lines of ten, and the truncation line even when exactly three are held.
  for (int held : {10, 3}) {
    root->clearHistory();
    insertEvents(1010 - held, held);
    EXPECT_EQ(printed(3), header(3) + line(1009000, 0, "schedulerIdle root") +
                              line(1008000, 1, "schedulerIdle root") +
                              line(1007000, 2, "schedulerIdle root") +
                              "Truncated due to requested limit\n\n");
  }

  // The ring keeps the newest events when full or shrunk.
  insertEvents(1000, 150);
  EXPECT_EQ(history.size(), 100u);
  EXPECT_EQ(history.event(0).timestamp(), TaskTimePoint(1149us));
  EXPECT_EQ(history.event(99).timestamp(), TaskTimePoint(1050us));
  root->historyEntryCountIs(4);
  EXPECT_EQ(history.size(), 4u);
  EXPECT_EQ(history.event(3).timestamp(), TaskTimePoint(1146us));
  root->historyEntryCountIs(0);
  insertEvents(0, 3);
  EXPECT_EQ(history.size(), 0u);
  EXPECT_THROW(root->historyEntryCountIs(268435456), std::length_error);
}

TEST_F(StatsTest, HistoryPrintsEveryLabelInTheSameLayout) {
  auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "w");
  task->taskStatsNameIs("t");  // the history shows stats names
  root->clearHistory();
  for (int type = 0; type < 24; ++type) {
    TaskTimePoint when(nanoseconds(1234567000 + 999999 * type));
    auto t = static_cast<TaskSchedulerEventType>(type);
    type < 15 ? history.insert(when, t, task.get()) : history.insert(when, t, root.get());
  }
  // Task labels are eleven characters wide, then the task's name; scheduler labels end in a
  // blank before the scheduler's name.
  const std::string taskLabels =
      "schedule   unschedule run start  run end    timerStart timerStop  suspendOn  suspendOff "
      "scheduleSusfrcYieldOn frcYieldOffidle       busy       create     delete     ";
  std::istringstream words(
      "Idle Runnable Suspended Unsuspended RunIgnoredWhileSuspended "
      "VirtualTimeOn VirtualTimeOff TestYieldRatioOn TestYieldRatioOff");
  const std::vector<std::string> schedulerLabels{std::istream_iterator<std::string>(words), {}};
  std::string expected = header(100);
  for (int type = 23; type >= 0; --type) {
    // Relative times are whole microseconds, truncated.
    expected += line(1234567000 + 999999 * type, 999999 * (23 - type) / 1000,
                     type < 15 ? taskLabels.substr(11 * type, 11) + "t"
                               : "scheduler" + schedulerLabels[type - 15] + " root");
  }
  EXPECT_EQ(printed(TaskSchedulerHistory::noLimit), expected + "\n");

  // The caller's format changes nothing. Durations, time stamps and tasks are one piece of
  // text each: padded as a whole, never in hexadecimal.
  std::ostringstream os;
  os << std::hex << std::showbase << std::left << std::setfill('*') << std::setw(40);
  root->printHistory(os, TaskSchedulerHistory::noLimit);
  EXPECT_EQ(os.str(), expected + "\n");
  os.str("");
  os << std::setw(8) << nanoseconds(255) << "|" << std::setw(30)
     << static_cast<_TaskBase*>(task.get()) << "|" << nanoseconds(1234567) << "|"
     << DisplayTaskTimeStamp{TaskTimePoint(1234567ns)} << "|" << -42ns;
  const std::string key = TaskKey(task.get()).toStrep();
  EXPECT_EQ(os.str(),
            "255ns***|w" + key + std::string(29 - key.size(), '*') + "|1234567ns|1234567ns|-42ns");
}

TEST_F(StatsTest, HistoryRecordsSchedulingStepsAndRejectsEventsOfTheWrongKind) {
  auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "t");
  auto group = TaskGroupIs("g", TaskPriority::normal, true, root);
  auto inner = std::make_shared<FnTask>(group, TaskPriority::normal, "i");
  auto runOldestFirst = [&](FnTask& t) {
    root->clearHistory();
    t.scheduleTask();
    root->runUntilIdle();
    std::string seen;
    for (unsigned i = history.size(); i-- > 0;) {
      seen += history.event(i).display() + "|";
    }
    return seen;
  };
  EXPECT_EQ(runOldestFirst(*task),
            "schedule   t|schedulerRunnable root|busy       t|run start  t|run end    t|"
            "idle       t|schedulerIdle root|");
  // A group's task runs within a run of the group's parent task.
  const std::string seen = runOldestFirst(*inner);
  const size_t outerStart = seen.find("run start  g;TaskGroup|");
  const size_t innerStart = seen.find("run start  i|"), innerEnd = seen.find("run end    i|");
  const size_t outerEnd = seen.find("run end    g;TaskGroup|");
  EXPECT_TRUE(outerStart < innerStart && innerStart < innerEnd && innerEnd < outerEnd &&
              outerEnd != std::string::npos)
      << seen;

  EXPECT_DEATH(history.insert({}, TaskSchedulerEventType::runEnd, root.get()),
               "Event.*EventType: 3");
  EXPECT_DEATH(history.insert({}, TaskSchedulerEventType::schedulerIdle, task.get()),
               "Event.*EventType: 15");
  EXPECT_DEATH(history.insert({}, static_cast<TaskSchedulerEventType>(24), root.get()),
               "eventNeedTask.*unexpected eventType=24");
}

}  // namespace
}  // namespace Tarvo
