#include "Tarvo/TaskStat.h"

#include <algorithm>
#include <cctype>

#include "Tarvo/Exception.h"

namespace Tarvo {

TaskStat::TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, uint32_t runCount,
                   nanoseconds totalRunTime, uint64_t workCountTotal, float workCountDecayAvg,
                   TaskMaybeU32 workCountHighWaterMark, uint32_t workPending,
                   TaskMaybeU32 workPendingHighWaterMark, uint32_t quantumViolation500,
                   uint32_t quantumViolation200, nanoseconds runTimeHighWaterMark,
                   nanoseconds lastSchedulingLatency, nanoseconds schedulingLatencyHighWaterMark,
                   TaskStatus status)
    : taskName_(std::move(name)),
      taskKey_(key),
      taskPriority_(priority),
      taskRunCount_(runCount),
      taskTotalRunTime_(totalRunTime),
      taskWorkCountTotal_(workCountTotal),
      taskWorkCountDecayAvg_(workCountDecayAvg),
      taskWorkCountHighWaterMark_(workCountHighWaterMark),
      taskWorkPending_(workPending),
      taskWorkPendingHighWaterMark_(workPendingHighWaterMark),
      taskQuantumViolation500_(quantumViolation500),
      taskQuantumViolation200_(quantumViolation200),
      taskRunTimeHighWaterMark_(runTimeHighWaterMark),
      taskLastSchedulingLatency_(lastSchedulingLatency),
      taskSchedulingLatencyHighWaterMark_(schedulingLatencyHighWaterMark),
      taskStatus_(status) {}

std::string TaskStat::taskStatusString() const {
  std::string s(2, ' ');
  if (taskStatus_.taskCurrentlyRunning()) {
    s[0] = '*';
  } else if (taskStatus_.taskSuspended()) {
    s[0] = 'S';
  } else if (taskStatus_.taskTimer()) {
    s[0] = taskStatus_.taskTimerRunning() ? 'T' : 't';
  }
  char letter = taskPriority_.oneCharString()[0];
  s[1] = taskStatus_.taskOnRunQueue()
             ? letter
             : static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  return s;
}

namespace {
void raiseMaybe(TaskMaybeU32& mine, TaskMaybeU32 other) {
  if (other.recorded() && other.value() > mine.valueOrZero()) {
    mine = other;
  }
}
}  // namespace

TaskStat& TaskStat::operator+=(const TaskStat& other) {
  if (taskName() != other.taskName()) {
    fatal(taskName() + " != " + other.taskName());
  }
  taskRunCount_ += other.taskRunCount_;
  taskTotalRunTime_ += other.taskTotalRunTime_;
  taskWorkCountTotal_ += other.taskWorkCountTotal_;
  taskQuantumViolation500_ += other.taskQuantumViolation500_;
  taskQuantumViolation200_ += other.taskQuantumViolation200_;

  taskWorkCountDecayAvg_ = other.taskWorkCountDecayAvg_;
  taskWorkPending_ = other.taskWorkPending_;
  taskLastSchedulingLatency_ = other.taskLastSchedulingLatency_;
  taskStatus_ = other.taskStatus_;

  taskRunTimeHighWaterMark_ = std::max(taskRunTimeHighWaterMark_, other.taskRunTimeHighWaterMark_);
  taskSchedulingLatencyHighWaterMark_ =
      std::max(taskSchedulingLatencyHighWaterMark_, other.taskSchedulingLatencyHighWaterMark_);
  raiseMaybe(taskWorkCountHighWaterMark_, other.taskWorkCountHighWaterMark_);
  raiseMaybe(taskWorkPendingHighWaterMark_, other.taskWorkPendingHighWaterMark_);

  taskDeadCount_ += 1;
  return *this;
}

}  // namespace Tarvo
