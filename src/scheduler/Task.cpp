#include <charconv>
#include <exception>
#include <string_view>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "platform/ProcessClock.h"
#include "scheduler/QuantumViolation.h"
#include "scheduler/SchedulerText.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

namespace {
std::shared_ptr<TaskScheduler>&& checkedScheduler(std::shared_ptr<TaskScheduler>&& scheduler) {
  check(scheduler != nullptr, "Need a TaskScheduler");
  return std::move(scheduler);
}
}  // namespace

// ---- _TaskBase ----

_TaskBase::_TaskBase(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
                     const std::string& name)
    : scheduler_(checkedScheduler(std::move(scheduler))),
      taskName_(scheduler_->nameCache().intern(name)),
      taskStatsName_(taskName_),
      taskPriority_(priority) {}

_TaskBase::~_TaskBase() = default;

void _TaskBase::taskStatsNameIs(const std::string& name) {
  taskStatsName_ = scheduler_->nameCache().intern(name);
}

void _TaskBase::taskBusyChanged(bool busy, const TaskTimePoint& now) {
  taskBusy_ = busy;
  taskHistoryInsert(now, busy ? TaskSchedulerEventType::busy : TaskSchedulerEventType::idle);
  handleTaskBusy();
}

// Both print one piece of text, so that a width the caller set pads it as a whole and no
// number format of the stream applies.
std::ostream& operator<<(std::ostream& os, const _TaskBase* task) {
  if (!task) {
    return os << "NULL";
  }
  return os << task->taskName().str() + TaskKey(task).toStrep();
}

std::ostream& operator<<(std::ostream& os, const std::chrono::nanoseconds& d) {
  char text[32];
  auto [end, ec] = std::to_chars(text, text + sizeof text - 2, d.count());
  end[0] = 'n';
  end[1] = 's';
  return os << std::string_view(text, end + 2 - text);
}

// ---- TaskImpl ----

// Reads the magic number of a task that may have been destroyed inside its own run; that is
// the one access the run makes before it knows whether the object is still alive.
__attribute__((no_sanitize("vptr"))) uint32_t TaskImpl::magicNumberAfterRun(const TaskImpl* task) {
  return task->taskMagicNumber_;
}

TaskImpl::TaskImpl(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
                   const std::string& name)
    : _TaskBase(std::move(scheduler), priority, name),
      taskQuantum_(scheduler_->defaultTaskQuantum()),
      taskMagicNumber_(taskMagicNumberConstructed) {
  includeInDeadTaskIs(true);
  taskShouldYieldModeReevaluate();
  handleInitialized();
  root()->taskCreated(*this);
}

void TaskImpl::handleInitialized() {
  scheduler_->taskRegister(this);
}

TaskImpl::~TaskImpl() {
  taskTestYieldRatioEffectiveIs(0);
  unscheduleTask();
  if (taskRegistered()) {
    scheduler_->taskUnregister(this);
  }
  taskMagicNumber_ = taskMagicNumberDestroyed;
  root()->taskDestroyed(*this);
  taskRunQueueLink_.unlink();
  taskRegisteredLink_.unlink();
}

void TaskImpl::handleDestroy() {
  unscheduleTask();
  if (taskRegistered()) {
    scheduler_->taskUnregister(this);
  }
  taskMagicNumber_ = taskMagicNumberDestroyed;
}

bool TaskImpl::taskScheduled() const {
  root()->sanityCheckCurrentRunningThread();
  return taskRunQueueLink_.isLinked();
}

void TaskImpl::scheduleTask() {
  root()->sanityCheckCurrentRunningThread();
  if (taskRunQueueLink_.isLinked()) {
    return;
  }
  TaskTimePoint now = processClockNow();
  if (taskSuspended_) {
    taskHistoryInsert(now, TaskSchedulerEventType::scheduleSus);
    return;
  }
  TARVO_TRACE(schedulerTrace(), 8, "Scheduled " << this);
  taskHistoryInsert(now, TaskSchedulerEventType::schedule);
  taskScheduledTime_ = now;
  scheduler_->enqueue(*this);
  scheduler_->schedulerHasRunnableTasksIs(true, now);
  taskBusyIs(true, now);
}

void TaskImpl::unscheduleTask() {
  root()->sanityCheckCurrentRunningThread();
  TaskTimePoint now = processClockNow();
  unscheduleTaskPrivate(now);
  taskBusyIs(taskRunQueueLink_.isLinked(), now);
}

void TaskImpl::unscheduleTaskPrivate(const TaskTimePoint& now) {
  if (!taskRunQueueLink_.isLinked()) {
    return;
  }
  TARVO_TRACE(schedulerTrace(), 8, "Unscheduled " << this);
  taskHistoryInsert(now, TaskSchedulerEventType::unschedule);
  auto& queue = scheduler_->taskRunQueues_.queue[taskPriority_.value()];
  if (queue.enqueueCount <= queue.pickCount) {
    fatal(concat("Task: ", this, " not on run queue"));
  }
  taskRunQueueLink_.unlink();
  schedulingLatencyIs(now - taskScheduledTime_);
  --queue.enqueueCount;
}

void TaskImpl::schedulingLatencyIs(nanoseconds latency) noexcept {
  taskLastSchedulingLatency_ = latency;
  if (latency > taskSchedulingLatencyHighWaterMark_) {
    taskSchedulingLatencyHighWaterMark_ = latency;
  }
}

void TaskImpl::taskSuspendedIs(bool suspended) {
  if (suspended == taskSuspended_) {
    return;
  }
  taskSuspended_ = suspended;
  TaskTimePoint now = processClockNow();
  if (suspended) {
    TARVO_TRACE(schedulerTrace(), 1, "Suspend " << this);
    taskHistoryInsert(now, TaskSchedulerEventType::suspendOn);
    unscheduleTask();
  } else {
    TARVO_TRACE(schedulerTrace(), 1, "Unsuspend " << this);
    taskHistoryInsert(now, TaskSchedulerEventType::suspendOff);
    if (!taskScheduled()) {
      scheduleTask();
    }
  }
}

void TaskImpl::taskQuantumIs(nanoseconds q) {
  if (static_cast<double>(q.count()) > 1e9) {
    fatal(concat("Quantum: ", q));
  }
  taskQuantumNoCheckIs(q);
}

void TaskImpl::taskQuantumNoCheckIs(nanoseconds q) {
  if (q == taskQuantum_) {
    return;
  }
  if (q.count() <= 0) {
    fatal(concat("Quantum: ", q));
  }
  taskQuantum_ = q;
  if (q != scheduler_->defaultTaskQuantum()) {
    TARVO_TRACE(schedulerTrace(), 4, "Set quantum " << this << " to " << q);
  } else {
    TARVO_TRACE(schedulerTrace(), 9, "Set quantum " << this << " to " << q);
  }
}

bool TaskImpl::taskShouldYield() const {
  if (!taskCurrentlyRunning_ && taskRunCount_ != 0) {
    fatal(concat("taskCurrentlyRunning: ", int(taskCurrentlyRunning_),
                 " taskRunCount: ", taskRunCount_));
  }
  TaskShouldYieldMode mode = taskCurrentlyRunning_ ? taskShouldYieldMode_ : realTime;
  switch (mode) {
    case realTime: {
      TaskTimePoint now = processClockNow();
      return now < taskRunStartTime_ || now - taskRunStartTime_ >= taskQuantum_;
    }
    case virtualTime:
      UnimplementedException::throwException("No support for virtual timestamps");
    case testYieldRatio:
      ++taskYieldCallCount_;
      return taskYieldCallCount_ % taskTestYieldRatioEffective_ == 0;
  }
  fatal(concat("Unexpected value ", int(mode)));
}

void TaskImpl::taskShouldYieldModeReevaluate() {
  TaskSchedulerRoot* r = root();
  uint8_t ratio = taskTestYieldRatio_ ? taskTestYieldRatio_ : r->taskTestYieldRatio();
  taskTestYieldRatioEffectiveIs(ratio);
  if (ratio != 0) {
    taskShouldYieldModeIs(testYieldRatio);
  } else {
    taskShouldYieldModeIs(r->virtualTime() ? virtualTime : realTime);
  }
}

void TaskImpl::taskTestYieldRatioEffectiveIs(uint8_t r) {
  if (r == taskTestYieldRatioEffective_) {
    return;
  }
  bool wasOn = taskTestYieldRatioEffective_ != 0;
  taskTestYieldRatioEffective_ = r;
  taskYieldCallCount_ = 0;
  if (wasOn != (r != 0)) {
    scheduler_->taskForceYieldInTestNotify(this, r != 0);
  }
}

void TaskImpl::taskShouldYieldModeIs(TaskShouldYieldMode mode) {
  taskShouldYieldMode_ = mode;
  if (mode == virtualTime && taskCurrentlyRunning_) {
    UnimplementedException::throwException("No support for virtual timestamps");
  }
}

void TaskImpl::taskTestYieldRatioIs(uint8_t r) {
  if (r == taskTestYieldRatio_) {
    return;
  }
  taskTestYieldRatio_ = r;
  taskHistoryInsert(processClockNow(),
                    r ? TaskSchedulerEventType::frcYieldOn : TaskSchedulerEventType::frcYieldOff);
  taskShouldYieldModeReevaluate();
}

void TaskImpl::taskWorkCountInc(unsigned long long n) {
  taskWorkCountLast_ = n;
  taskWorkCountTotal_ += n;
  // The mark is unset exactly until the first sample. A count of 2^32 or more records its low
  // 32 bits, which may lower the mark; all ones is recorded as 4294967294, never as "unset".
  if (!taskWorkCountHighWaterMark_.recorded()) {
    taskWorkCountDecayAvg_ = static_cast<float>(n);
  } else {
    taskWorkCountDecayAvg_ = (9 * taskWorkCountDecayAvg_ + static_cast<float>(n)) / 10;
    if (n <= taskWorkCountHighWaterMark_.value()) {
      return;
    }
  }
  const auto low = static_cast<uint32_t>(n);
  taskWorkCountHighWaterMark_ = low == TaskMaybeU32::unset ? TaskMaybeU32::maxRecorded : low;
}

void TaskImpl::taskWorkPendingIs(unsigned n) {
  taskWorkPending_ = n;
  taskWorkPendingHighWaterMark_.raiseTo(n);
}

TaskStat::TaskStatus TaskImpl::taskStatus() const {
  TaskStat::TaskStatus status;
  status.taskCurrentlyRunningIs(taskCurrentlyRunning_);
  status.taskOnRunQueueIs(taskRunQueueLink_.isLinked());
  status.taskSuspendedIs(taskSuspended_);
  return status;
}

TaskStat TaskImpl::getStats() const {
  return TaskStat(taskStatsName_, TaskKey(this), taskPriority_, taskRunCount_, taskRunTimeTotal_,
                  taskWorkCountTotal_, taskWorkCountDecayAvg_, taskWorkCountHighWaterMark_,
                  taskWorkPending_, taskWorkPendingHighWaterMark_, taskQuantumViolation500_,
                  taskQuantumViolation200_, taskRunTimeHighWaterMark_, taskLastSchedulingLatency_,
                  taskSchedulingLatencyHighWaterMark_, taskStatus());
}

void TaskImpl::resetStats() {
  taskRunCount_ = 0;
  taskRunTimeTotal_ = nanoseconds(0);
  taskRunTimeHighWaterMark_ = nanoseconds(0);
  taskLastSchedulingLatency_ = nanoseconds(0);
  taskSchedulingLatencyHighWaterMark_ = nanoseconds(0);
  taskWorkCountTotal_ = 0;
  taskWorkCountDecayAvg_ = 0;
  taskWorkPending_ = 0;
  taskQuantumViolation500_ = 0;
  taskQuantumViolation200_ = 0;
  taskWorkCountHighWaterMark_ = TaskMaybeU32();
  taskWorkPendingHighWaterMark_ = TaskMaybeU32();
  handleResetStats();
}

void TaskImpl::taskDoRun(const TaskTimePoint& start, TaskTimePoint* end) {
  taskHistoryInsert(start, TaskSchedulerEventType::runStart);
  if (taskRunQueueLink_.isLinked()) {
    fatal(concat("Task: ", this, " is on a run queue"));
  }
  TARVO_TRACE(schedulerTrace(), 8, "Running " << this);
  taskRunStartTime_ = start;
  if (taskShouldYieldMode_ == virtualTime) {
    UnimplementedException::throwException("No support for virtual timestamps");
  }
  ++taskRunCount_;
  taskCurrentlyRunning_ = true;
  try {
    taskExecute();
  } catch (...) {
    if (magicNumberAfterRun(this) == taskMagicNumberConstructed) {
      taskCurrentlyRunning_ = false;
    }
    throw;
  }
  if (uint32_t magic = magicNumberAfterRun(this); magic != taskMagicNumberConstructed) {
    // The object is gone: name it by its address only.
    fatal(concat("Task: ", TaskKey(static_cast<const _TaskBase*>(this)).toStrep(),
                 " taskMagicNumber: ", magic,
                 " taskMagicNumberConstructed: ", taskMagicNumberConstructed));
  }
  taskCurrentlyRunning_ = false;
  *end = processClockNow();
  nanoseconds elapsed = *end - taskRunStartTime_;
  if (QuantumViolation violation = quantumViolation(elapsed, taskQuantum_);
      violation != QuantumViolation::none) {
    TARVO_TRACE(
        schedulerTrace(), 5,
        "Ran " << this << " used " << elapsed << " "
               << static_cast<int64_t>(std::chrono::duration<double>(elapsed).count() /
                                       std::chrono::duration<double>(taskQuantum_).count() * 100)
               << "% violation");
    if (violation == QuantumViolation::over200) {
      ++taskQuantumViolation200_;
    } else {
      ++taskQuantumViolation500_;
    }
  } else {
    TARVO_TRACE(schedulerTrace(), 7, "Ran " << this << " used " << elapsed);
  }
  if (elapsed > taskRunTimeHighWaterMark_) {
    taskRunTimeHighWaterMark_ = elapsed;
  }
  taskRunTimeTotal_ += elapsed;
  taskHistoryInsert(*end, TaskSchedulerEventType::runEnd);
  // taskScheduled() rather than the run-queue link: a timer task that re-armed its timer
  // during the run stays busy.
  taskBusyIs(taskScheduled(), *end);
}

void TaskImpl::taskRunFromTest() {
  TaskTimePoint now = processClockNow();
  if (taskRunQueueLink_.isLinked()) {
    scheduler_->taskSchedulerUnlinkTask(scheduler_->taskRunQueues_.queue[taskPriority_.value()],
                                        *this, now);
  }
  TaskTimePoint end;
  taskDoRun(now, &end);
}

void TaskImpl::taskRunAndRecordFromTest() {
  scheduler_->checkSchedulerLatency();
  TaskTimePoint start = scheduler_->schedulerRunStartTime_;
  if (taskRunQueueLink_.isLinked()) {
    scheduler_->taskSchedulerUnlinkTask(scheduler_->taskRunQueues_.queue[taskPriority_.value()],
                                        *this, start);
  }
  TaskTimePoint end;
  taskDoRun(start, &end);
  scheduler_->lastRunRequestTime_ = end;
}

// ---- Task ----

Task::Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const std::string& name)
    : TaskImpl(std::move(scheduler), priority, name) {}

Task::Task(TaskScheduler* scheduler, TaskPriority priority, const std::string& name)
    : TaskImpl(scheduler ? scheduler->shared_from_this() : std::shared_ptr<TaskScheduler>(),
               priority, name) {}

}  // namespace Tarvo
