// The text statistics report: gathering the figures of a scheduler or a tree, and laying them
// out as the per-priority summary, the legend and the task tables.
#include <algorithm>
#include <boost/format.hpp>
#include <charconv>
#include <iostream>
#include <locale>
#include <stdexcept>

#include "Tarvo/TaskScheduler.h"
#include "stats/StreamFormatGuard.h"

namespace Tarvo {

namespace {

// The report's formats: printf-like, with the classic locale's separators whatever locale
// the program has made its global one. A format given a locale imbues it for every argument,
// which costs more than the rest of a row, so only when the global locale is another one.
boost::format reportFormat(const char* format) {
  if (std::locale() == std::locale::classic()) {
    return boost::format(format);
  }
  return boost::format(format, std::locale::classic());
}

const char* const kLegend[][2] = {
    {"SP", "= Task status and priority % two characters:"},
    {"   first", "  T/t for active/idle timers, * for running task or blank"},
    {"   second", "  priority and runnable status, upper case for runnable"},
    {"RunCount", "= Number of times task has run"},
    {"TotalSec", "= Total run time in seconds"},
    {"LastDelay", "= Scheduling delay last time task ran, in seconds"},
    {"MaxDelay", "= Maximum scheduling delay encountered, in seconds"},
    {"200% 500%", "= Number of times task used this percentage of quantum"},
    {"MaxMs", "= Maximum single run time in milliseconds"},
    {"Dead", "= Number of times a task with this name has died"},
    {"TotalWorkCount", "= Counter of total work units processed"},
    {"DecayAvgWorkCount", "=    exponential decaying average of work units processed"},
    {"MaxWorkCount", "=    high watermark of work units processed in one run"},
    {"LastWorkPending", "= Work units pending processing"},
    {"MaxWorkPending", "=    high watermark of work units pending processing"},
};

double seconds(std::chrono::nanoseconds d) {
  return static_cast<double>(d.count()) / 1e9;
}

std::string maybe(TaskMaybeU32 v) {
  return v.recorded() ? std::to_string(v.value()) : std::string("-");
}

// "%6.1f" whatever the C locale: std::to_chars always writes '.'. Any float fits the buffer
// (at most 39 integer digits, the point and one decimal).
std::string decayAvg(float avg) {
  char text[64];
  char* end =
      std::to_chars(text, text + sizeof text, static_cast<double>(avg), std::chars_format::fixed, 1)
          .ptr;
  std::string_view digits(text, static_cast<size_t>(end - text));
  return std::string(digits.size() < 6 ? 6 - digits.size() : 0, ' ').append(digits);
}

const char* plural(unsigned n) {
  return n >= 2 ? "s" : "";
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const DisplayTaskTimeStamp& stamp) {
  return os << std::chrono::duration_cast<std::chrono::nanoseconds>(stamp.when.time_since_epoch());
}

void taskSchedulerDisplay(std::ostream& os, std::vector<TaskStat>& stats, std::string title,
                          unsigned skipped, bool deadTable, bool hideWorkCounts, unsigned limit) {
  StreamFormatGuard clean(os);
  std::vector<const TaskStat*> rows;
  rows.reserve(stats.size());
  size_t width = title.size();
  for (const TaskStat& s : stats) {
    rows.push_back(&s);
    width = std::max(width, s.taskName().size());
  }
  std::stable_sort(rows.begin(), rows.end(), [](const TaskStat* a, const TaskStat* b) {
    return a->taskTotalRunTime() > b->taskTotalRunTime();
  });

  boost::format header =
      reportFormat(deadTable ? "%s%s %2s %10s %13s %14s %4s %4s %5s %4s %26s %20s"
                             : "%s%s %2s %10s %13s %14s %4s %4s %5s %26s %20s");
  header % title % std::string(width - title.size(), ' ') % "SP" % "RunCount" % "TotalSec" %
      "Last/Max-Delay" % "200%" % "500%" % "MaxMs";
  if (deadTable) {
    header % "Dead";
  }
  os << (header % "Total/DecayA/Max-WorkCount" % "Last/Max-WorkPending") << '\n';

  boost::format row = reportFormat(
      deadTable ? "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %4u %10s %8s %6s %9s %10s"
                : "%s%s %2s %10u %13.3f %6.3f %7.3f %4u %4u %5u %10s %8s %6s %9s %10s");
  const std::string hidden = ".";
  size_t shown = std::min<size_t>(rows.size(), limit);
  for (size_t i = 0; i < shown; ++i) {
    const TaskStat& s = *rows[i];
    row.clear();
    row % s.taskName() % std::string(width - s.taskName().size(), ' ') % s.taskStatusString() %
        s.taskRunCount() % seconds(s.taskTotalRunTime()) % seconds(s.taskLastSchedulingLatency()) %
        seconds(s.taskSchedulingLatencyHighWaterMark()) % s.taskQuantumViolation200() %
        s.taskQuantumViolation500() %
        std::chrono::duration_cast<std::chrono::milliseconds>(s.taskRunTimeHighWaterMark()).count();
    if (deadTable) {
      row % s.taskDeadCount();
    }
    if (hideWorkCounts) {
      row % hidden % hidden % hidden % hidden % hidden;
    } else {
      row % std::to_string(s.taskWorkCountTotal()) % decayAvg(s.taskWorkCountDecayAvg()) %
          maybe(s.taskWorkCountHighWaterMark()) % std::to_string(s.taskWorkPending()) %
          maybe(s.taskWorkPendingHighWaterMark());
    }
    os << row << '\n';
  }
  if (skipped != 0) {
    os << reportFormat("Skipped %u task%s with no runs\n") % skipped % plural(skipped);
  }
  if (shown < rows.size()) {
    auto left = static_cast<unsigned>(rows.size() - shown);
    os << reportFormat("Truncated %u task%s due to requested limit\n") % left % plural(left);
  }
}

void printStatsImpl(std::ostream& os, const TaskSchedulerQueueStats& queueStats,
                    std::chrono::nanoseconds slip, std::vector<TaskStat>* tasks, unsigned skipped,
                    std::vector<TaskStat>* deadTasks, unsigned deadSkipped, bool hideWorkCounts,
                    unsigned taskLimit, unsigned deadTaskLimit) {
  if (tasks == nullptr) {
    throw std::invalid_argument("printStatsImpl: no live task records (tasks is null)");
  }
  StreamFormatGuard clean(os);
  os << reportFormat("%-8s %13s %13s %9s %15s\n") % "Priority" % "RunnableCount" % "IdleCount" %
            "DeadCount" % "TotalRunCount";
  boost::format summary = reportFormat("%-8s %13u %13u %9u %15llu\n");
  for (const auto& [priority, stats] : queueStats) {
    summary.clear();
    os << (summary % priority.toStrep() % stats.runnable % stats.notRunnable % stats.dead %
           stats.runs);
  }
  os << reportFormat("Maximum scheduler slip %.6f seconds\n") % seconds(slip);

  os << '\n';
  boost::format legend = reportFormat("%-17s %s\n");
  for (const auto& [column, explanation] : kLegend) {
    if (deadTasks || std::string_view(column) != "Dead") {
      legend.clear();
      os << (legend % column % explanation);
    }
  }

  os << '\n';
  taskSchedulerDisplay(os, *tasks, "TaskName", skipped, false, hideWorkCounts, taskLimit);
  if (deadTasks) {
    os << '\n';
    taskSchedulerDisplay(os, *deadTasks, "TaskName (Dead tasks)", deadSkipped, true, false,
                         deadTaskLimit);
  }
}

void printStatsSnapshot(std::ostream& os, TaskSchedulerStatsSnapshot& snapshot, bool hideWorkCounts,
                        unsigned taskLimit, unsigned deadTaskLimit) {
  printStatsImpl(os, snapshot.queueStats, snapshot.slip, &snapshot.tasks, snapshot.skipped,
                 snapshot.deadTasksGathered ? &snapshot.deadTasks : nullptr, snapshot.deadSkipped,
                 hideWorkCounts, taskLimit, deadTaskLimit);
}

TaskSchedulerStatsSnapshot TaskScheduler::statsSnapshot(bool includeNoRuns,
                                                        bool includeDeadTasks) const {
  TaskSchedulerStatsSnapshot snapshot;
  snapshot.queueStats = queueStats();
  snapshot.slip = schedulerLatencyHighWaterMark();
  snapshot.skipped = getTaskStats(&snapshot.tasks, includeNoRuns);
  if (includeDeadTasks) {
    snapshot.deadTasksGathered = true;
    snapshot.deadSkipped = getDeadTaskStats(&snapshot.deadTasks, includeNoRuns);
  }
  return snapshot;
}

TaskSchedulerStatsSnapshot TaskSchedulerRoot::statsSnapshotRoot(bool includeNoRuns,
                                                                bool includeDeadTasks) const {
  TaskSchedulerStatsSnapshot snapshot;
  snapshot.queueStats = queueStatsRoot();
  snapshot.deadTasksGathered = includeDeadTasks;
  for (const TaskScheduler* s : registeredSchedulers()) {
    snapshot.slip = std::max(snapshot.slip, s->schedulerLatencyHighWaterMark());
    snapshot.skipped += s->getTaskStats(&snapshot.tasks, includeNoRuns);
    if (includeDeadTasks) {
      snapshot.deadSkipped += s->getDeadTaskStats(&snapshot.deadTasks, includeNoRuns);
    }
  }
  return snapshot;
}

void TaskScheduler::printStats(std::ostream& os, bool includeNoRuns, bool hideWorkCounts,
                               unsigned taskLimit, unsigned deadTaskLimit,
                               unsigned historyLimit) const {
  StreamFormatGuard clean(os);
  TaskSchedulerStatsSnapshot snapshot = statsSnapshot(includeNoRuns, deadTaskLimit != 0);
  printStatsSnapshot(os, snapshot, hideWorkCounts, taskLimit, deadTaskLimit);
  if (historyLimit != 0) {
    os << "Scheduler history for non root scheduler included in root scheduler\n";
  }
}

void TaskSchedulerRoot::printStats(std::ostream& os, bool includeNoRuns, bool hideWorkCounts,
                                   unsigned taskLimit, unsigned deadTaskLimit,
                                   unsigned historyLimit) const {
  StreamFormatGuard clean(os);
  TaskSchedulerStatsSnapshot snapshot = statsSnapshotRoot(includeNoRuns, deadTaskLimit != 0);
  printStatsSnapshot(os, snapshot, hideWorkCounts, taskLimit, deadTaskLimit);
  os << '\n';
  printHistory(os, historyLimit);
}

void TaskSchedulerRoot::printStatsStdErr(bool includeNoRuns, bool hideWorkCounts,
                                         unsigned taskLimit, unsigned deadTaskLimit,
                                         unsigned historyLimit) const {
  printStats(std::cerr, includeNoRuns, hideWorkCounts, taskLimit, deadTaskLimit, historyLimit);
}

}  // namespace Tarvo
