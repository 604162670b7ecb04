#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;

class SchedulerHistoryTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  TaskSchedulerHistory& history = *root->history();

  // Inserts scheduler events at `first`, `first` + 1 ... microseconds, `n` of them.
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

TEST_F(SchedulerHistoryTest, PrintsNewestFirstAndTruncatesAtTheLimit) {
  auto task = std::make_shared<Tarvo::Test::FnTask>(root, TaskPriority::normal, "worker");
  task->taskStatsNameIs("workers");
  root->clearHistory();
  EXPECT_EQ(printed(TaskSchedulerHistory::noLimit), header(100) + "\n");
  EXPECT_EQ(header(100).size(), 146u);
  history.insert(TaskTimePoint(5000000ns), TaskSchedulerEventType::schedulerRunnable, root.get());
  history.insert(TaskTimePoint(5002999ns), TaskSchedulerEventType::runStart, task.get());
  EXPECT_EQ(printed(TaskSchedulerHistory::noLimit),
            header(100) + line(5002999, 0, "run start  workers") +
                line(5000000, 2, "schedulerRunnable root") + "\n");

  // Three lines of ten, and the truncation line even when exactly three are held.
  for (int held : {10, 3}) {
    root->clearHistory();
    insertEvents(1010 - held, held);
    EXPECT_EQ(printed(3), header(3) + line(1009000, 0, "schedulerIdle root") +
                              line(1008000, 1, "schedulerIdle root") +
                              line(1007000, 2, "schedulerIdle root") +
                              "Truncated due to requested limit\n\n");
  }
}

TEST_F(SchedulerHistoryTest, RingKeepsTheNewestEventsWhenFullOrShrunk) {
  root->clearHistory();
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

TEST_F(SchedulerHistoryTest, SchedulingStepsAreRecorded) {
  auto task = std::make_shared<Tarvo::Test::FnTask>(root, TaskPriority::normal, "t");
  root->clearHistory();
  task->scheduleTask();
  root->runUntilIdle();
  std::string seen;
  for (unsigned i = history.size(); i-- > 0;) {
    seen += history.event(i).display() + "|";
  }
  EXPECT_EQ(seen,
            "schedule   t|schedulerRunnable root|busy       t|run start  t|run end    t|"
            "idle       t|schedulerIdle root|");
}

TEST(SchedulerHistoryDeathTest, EventTypeMustFitTheVariant) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto task = std::make_shared<Tarvo::Test::FnTask>(root, TaskPriority::normal, "t");
  TaskSchedulerHistory& h = *root->history();
  auto now = TaskClock::now();
  EXPECT_DEATH(h.insert(now, TaskSchedulerEventType::runEnd, root.get()), "Event.*EventType: 3");
  EXPECT_DEATH(h.insert(now, TaskSchedulerEventType::schedulerIdle, task.get()),
               "Event.*EventType: 15");
  EXPECT_DEATH(h.insert(now, static_cast<TaskSchedulerEventType>(24), root.get()),
               "eventNeedTask.*unexpected eventType=24");
}

}  // namespace
}  // namespace Tarvo
