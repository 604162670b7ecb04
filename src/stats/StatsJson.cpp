// TaskSchedulerRoot::writeStatsJson: the figures of the statistics report as JSON, from the
// same snapshot the text report formats.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <ostream>
#include <vector>

#include "Tarvo/TaskScheduler.h"
#include "stats/JsonText.h"

namespace Tarvo {

namespace {

void writeMaybe(std::ostream& os, TaskMaybeU32 v) {
  if (v.recorded()) {
    os << v.value();
  } else {
    os << "null";
  }
}

void writeFloat(std::ostream& os, float v) {
  if (!std::isfinite(v)) {
    os << "null";
    return;
  }
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
  os.write(buffer, result.ptr - buffer);
}

// One table: the records in the text report's row order (total run time, largest first;
// equal times in gathering order).
void writeRecords(std::ostream& os, const std::vector<TaskStat>& stats, bool dead) {
  std::vector<const TaskStat*> rows;
  rows.reserve(stats.size());
  for (const TaskStat& s : stats) {
    rows.push_back(&s);
  }
  std::stable_sort(rows.begin(), rows.end(), [](const TaskStat* a, const TaskStat* b) {
    return a->taskTotalRunTime() > b->taskTotalRunTime();
  });
  os << '[';
  const char* separator = "\n";
  for (const TaskStat* s : rows) {
    os << separator << "{\"name\":";
    separator = ",\n";
    writeJsonString(os, s->taskName());
    os << ",\"status\":\"" << s->taskStatusString() << "\",\"priority\":\"" << s->taskPriority()
       << "\",\"runCount\":" << s->taskRunCount()
       << ",\"totalRunTimeNs\":" << s->taskTotalRunTime().count()
       << ",\"lastDelayNs\":" << s->taskLastSchedulingLatency().count()
       << ",\"maxDelayNs\":" << s->taskSchedulingLatencyHighWaterMark().count()
       << ",\"quantumUsed200\":" << s->taskQuantumViolation200()
       << ",\"quantumUsed500\":" << s->taskQuantumViolation500()
       << ",\"maxRunNs\":" << s->taskRunTimeHighWaterMark().count();
    if (dead) {
      os << ",\"deadCount\":" << s->taskDeadCount();
    }
    os << ",\"workCountTotal\":" << s->taskWorkCountTotal() << ",\"workCountDecayAvg\":";
    writeFloat(os, s->taskWorkCountDecayAvg());
    os << ",\"workCountMax\":";
    writeMaybe(os, s->taskWorkCountHighWaterMark());
    os << ",\"workPending\":" << s->taskWorkPending() << ",\"workPendingMax\":";
    writeMaybe(os, s->taskWorkPendingHighWaterMark());
    os << '}';
  }
  os << (rows.empty() ? "]" : "\n]");
}

}  // namespace

void TaskSchedulerRoot::writeStatsJson(std::ostream& os, bool includeNoRuns,
                                       bool includeDeadTasks) const {
  const TaskSchedulerStatsSnapshot snapshot = statsSnapshotRoot(includeNoRuns, includeDeadTasks);
  os << "{\"root\":";
  writeJsonString(os, schedulerName().str());
  os << ",\n\"summary\":[";
  const char* separator = "\n";
  for (const auto& [priority, stats] : snapshot.queueStats) {
    os << separator << "{\"priority\":\"" << priority << "\",\"runnable\":" << stats.runnable
       << ",\"idle\":" << stats.notRunnable << ",\"dead\":" << stats.dead
       << ",\"runs\":" << stats.runs << '}';
    separator = ",\n";
  }
  os << "],\n\"maxSchedulerSlipNs\":" << snapshot.slip.count() << ",\n\"tasks\":";
  writeRecords(os, snapshot.tasks, false);
  os << ",\n\"skippedTasks\":" << snapshot.skipped;
  if (snapshot.deadTasksGathered) {
    os << ",\n\"deadTasks\":";
    writeRecords(os, snapshot.deadTasks, true);
    os << ",\n\"skippedDeadTasks\":" << snapshot.deadSkipped;
  }
  os << "}\n";
}

}  // namespace Tarvo
