// Per-priority queue statistics and the text statistics report of a scheduler tree.
//
// Gathering and formatting are separate: TaskScheduler::queueStats(),
// TaskSchedulerRoot::queueStatsRoot(), TaskScheduler::getTaskStats() and getDeadTaskStats()
// produce the figures as values; printStatsImpl() and taskSchedulerDisplay() only format them.
// A writer of another format takes the same values.
//
// The report's sections, each line ending in a newline: the summary (a header and five rows),
// the slip line, an empty line, the legend, an empty line, the live table, and, when dead
// records were gathered, an empty line and the dead table. A scheduler's printStats() then
// adds the line about the history when asked for one; the root's adds an empty line and its
// history listing.
//
// Threads: values only; the figures are gathered on the thread of their scheduler tree.
// Failures: merging records of different priorities ends the process (a programming error).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "Tarvo/TaskClock.h"
#include "Tarvo/TaskPriority.h"
#include "Tarvo/TaskStat.h"

namespace Tarvo {

// The counts of one priority of one scheduler (or summed over a tree).
struct TaskSchedulerPriorityStats {
  TaskPriority priority;     // the priority counted
  uint32_t runnable = 0;     // tasks on the run queue now
  uint32_t notRunnable = 0;  // registered tasks not on the run queue
  uint32_t dead = 0;         // tasks that died since the last statistics reset
  uint64_t runs = 0;         // runs from this priority's queue since the last reset

  // Adds the four counts; ends the process with "<mine> != <other>" when the priorities
  // differ.
  TaskSchedulerPriorityStats& operator+=(const TaskSchedulerPriorityStats& other);
  friend bool operator==(const TaskSchedulerPriorityStats&,
                         const TaskSchedulerPriorityStats&) = default;
};

// Per-priority counts, ascending by priority ("absolute" first).
class TaskSchedulerQueueStats : public std::map<TaskPriority, TaskSchedulerPriorityStats> {
 public:
  // Adds each entry of `other` to the entry of its priority, or inserts a copy.
  TaskSchedulerQueueStats& operator+=(const TaskSchedulerQueueStats& other);
};

// Every figure of one report, gathered before any formatting: TaskScheduler::statsSnapshot()
// for one scheduler, TaskSchedulerRoot::statsSnapshotRoot() for a whole tree.
struct TaskSchedulerStatsSnapshot {
  TaskSchedulerQueueStats queueStats;  // the per-priority counts
  std::chrono::nanoseconds slip{0};    // longest delay between a run request and the run
  std::vector<TaskStat> tasks;         // live tasks, in registration-list order per scheduler
  unsigned skipped = 0;                // live tasks left out for having no runs
  bool deadTasksGathered = false;      // whether `deadTasks` and `deadSkipped` were gathered
  std::vector<TaskStat> deadTasks;     // dead-task records, in hash-table order
  unsigned deadSkipped = 0;            // dead records left out for having no runs
};

// The report's limits: rows of a table are never limited with this value.
constexpr unsigned statsNoLimit = 0xffffffffu;

// Writes the report body: the per-priority summary, the largest scheduler slip (seconds),
// the legend, the live table and, when `deadTasks` is not null, the dead table. Sorts the
// vectors in place (largest total run time first). `hideWorkCounts` replaces each work-count
// figure of the live table with the placeholder "."; the dead table always shows them.
// The text does not depend on the caller's stream format nor on the global locale (figures
// always use '.' and no digit grouping); the caller's flags, fill, precision and locale are
// given back, and a width set before the call is used up, as by any output. A null `tasks`
// throws std::invalid_argument before anything is written.
void printStatsImpl(std::ostream& os, const TaskSchedulerQueueStats& queueStats,
                    std::chrono::nanoseconds slip, std::vector<TaskStat>* tasks, unsigned skipped,
                    std::vector<TaskStat>* deadTasks, unsigned deadSkipped, bool hideWorkCounts,
                    unsigned taskLimit, unsigned deadTaskLimit);

// Writes one table: the header, at most `limit` rows sorted by total run time (largest first;
// equal times keep their order in `stats`), then "Skipped ..." when `skipped` is not zero and
// "Truncated ..." when rows were left out. The name column is as wide as the longest name,
// the title included. A dead table has the extra "Dead" column. The millisecond column is the
// longest run truncated to whole milliseconds; delays are seconds (nanoseconds / 1e9).
// Throws std::length_error ("vector::reserve") when the row pointers cannot be reserved.
void taskSchedulerDisplay(std::ostream& os, std::vector<TaskStat>& stats, std::string title,
                          unsigned skipped, bool deadTable, bool hideWorkCounts, unsigned limit);

// The stream form of a scheduler time stamp in trace lines: the steady-clock reading in
// nanoseconds, as "<n>ns" (the form of a duration).
struct DisplayTaskTimeStamp {
  TaskTimePoint when;  // the time stamp shown
};
// Writes "<n>ns".
std::ostream& operator<<(std::ostream& os, const DisplayTaskTimeStamp& stamp);

// printStatsImpl() over a gathered snapshot.
void printStatsSnapshot(std::ostream& os, TaskSchedulerStatsSnapshot& snapshot, bool hideWorkCounts,
                        unsigned taskLimit, unsigned deadTaskLimit);

}  // namespace Tarvo
