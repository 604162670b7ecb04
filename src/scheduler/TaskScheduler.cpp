#include "Tarvo/TaskScheduler.h"

#include "Tarvo/Exception.h"
#include "platform/ProcessClock.h"
#include "scheduler/SchedulerText.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

namespace {
// Starvation weights per priority: how strongly a waiting task of that priority pushes
// against the priority above it.
constexpr uint32_t kBumpWeight[] = {64, 8, 1};
}  // namespace

std::ostream& operator<<(std::ostream& os, const TaskScheduler* scheduler) {
  if (!scheduler) {
    return os << "NULL";
  }
  return os << scheduler->schedulerName();
}

void TaskScheduler::TaskRunQueues::TaskRunQueue::movePersistentToTemporary() {
  if (!temporary.empty()) {
    debugAndThrowAssertException(&schedulerTrace(), 1,
                                 "The temporary run queue should always be empty at this point",
                                 "TaskScheduler", "movePersistentToTemporary", __LINE__);
  }
  temporary.spliceBack(persistent);
  current = &temporary;
}

void TaskScheduler::TaskRunQueues::TaskRunQueue::moveTemporaryToPersistent() {
  persistent.spliceFront(temporary);
  if (!temporary.empty()) {
    debugAndThrowAssertException(&schedulerTrace(), 1,
                                 "The temporary run queue should always be empty at this point",
                                 "TaskScheduler", "moveTemporaryToPersistent", __LINE__);
  }
  current = &persistent;
}

TaskScheduler::TaskScheduler(const std::string& name, TaskSchedulerRoot* root,
                             std::shared_ptr<TaskSchedulerHistory> history)
    : history_(std::move(history)),
      schedulerName_(history_->nameCache().intern(name)),
      root_(root),
      lastRunRequestTime_(processClockNow()) {}

TaskScheduler::~TaskScheduler() {
  resetStatsTaskRelease();
}

void TaskScheduler::taskRegister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  TaskPriority priority = task->taskPriority();
  if (!priority.valid()) {
    fatal(concat(priority));
  }
  TARVO_TRACE(schedulerTrace(), 4, this << " Register " << static_cast<const _TaskBase*>(task));
  if (task->taskRegisteredLink_.isLinked()) {
    fatal(concat("Task: ", static_cast<const _TaskBase*>(task), " already registered"));
  }
  registeredTasks_.pushFront(*task);
  tasksPerPriorityInc(priority);
  history_->insert(processClockNow(), TaskSchedulerEventType::create, task);
}

void TaskScheduler::taskUnregister(TaskImpl* task) {
  root_->sanityCheckCurrentRunningThread();
  const _TaskBase* base = task;
  TARVO_TRACE(schedulerTrace(), 4, this << " Unregister " << base);
  if (task->taskRunQueueLink_.isLinked()) {
    fatal(concat("Task: ", base, " scheduled on unregister"));
  }
  updateDeadTaskStats(task);
  if (!task->taskRegisteredLink_.isLinked()) {
    fatal(concat("Task: ", base, " not registered"));
  }
  task->taskRegisteredLink_.unlink();
  history_->insert(processClockNow(), TaskSchedulerEventType::destroy, task);
}

void TaskScheduler::enqueue(TaskImpl& task) {
  auto& queue = taskRunQueues_.queue[task.taskPriority().value()];
  queue.persistent.pushBack(task);
  ++queue.enqueueCount;
}

void TaskScheduler::schedulerRunnableChanged(bool runnable, const TaskTimePoint& now) {
  schedulerHasRunnableTasks_ = runnable;
  if (runnable) {
    TARVO_TRACE(schedulerTrace(), 8, this << " Scheduler has runnable tasks, request run");
    history_->insert(now, TaskSchedulerEventType::schedulerRunnable, this);
    lastRunRequestTime_ = now;
    requestSchedulerRun();
  } else {
    history_->insert(now, TaskSchedulerEventType::schedulerIdle, this);
    TARVO_TRACE(schedulerTrace(), 8, this << " Scheduler idle");
  }
}

void TaskScheduler::requestSchedulerRunAndRecord(TaskTimePoint now) {
  lastRunRequestTime_ = now;
  requestSchedulerRun();
}

void TaskScheduler::checkSchedulerLatency() {
  TaskTimePoint now = processClockNow();
  schedulerRunStartTime_ = now;
  nanoseconds latency = now - lastRunRequestTime_;
  if (latency > schedulerLatencyHighWaterMark_) {
    schedulerLatencyHighWaterMark_ = latency;
  }
}

void TaskScheduler::handleSchedulerRun() {
  checkSchedulerLatency();
  if (root_->suspended()) {
    TARVO_TRACE(schedulerTrace(), 8, this << " Suspended");
    history_->insert(schedulerRunStartTime_,
                     TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended, this);
    return;
  }
  TaskImpl* task = pickOneTask(schedulerRunStartTime_, TaskPriority::absolute);
  if (!task) {
    schedulerHasRunnableTasksIs(false, schedulerRunStartTime_);
    return;
  }
  // Cleared on every way out, so that an exception from the task leaves no stale reference.
  struct CurrentTaskClear {
    TaskScheduler* scheduler;
    ~CurrentTaskClear() {
      scheduler->currentTaskKey_ = TaskKey();
      scheduler->currentTaskRef_.reset();
    }
  };
  CurrentTaskClear clear{this};
  TaskTimePoint runEnd;
  try {
    // Throws std::bad_weak_ptr for a task that no std::shared_ptr owns (or whose owner is
    // destroying it); the task, already off its queue, is then dropped.
    currentTaskRef_ = task->shared_from_this();
    currentTaskKey_ = TaskKey(static_cast<const _TaskBase*>(task));
    task->taskDoRun(schedulerRunStartTime_, &runEnd);
  } catch (...) {
    // This scheduler still counts itself runnable, so a later scheduleTask() would request
    // nothing: ask for the next run now, or the remaining tasks would never run. Done here,
    // while the strong reference to the task (and through it to this scheduler) still holds.
    requestSchedulerRunAndRecord(processClockNow());
    throw;
  }
  TARVO_TRACE(schedulerTrace(), 8, this << " Scheduler completed task, request run");
  requestSchedulerRunAndRecord(runEnd);
}

TaskImpl* TaskScheduler::pickOneTask(const TaskTimePoint& now, TaskPriority from) {
  if (!from.valid()) {
    return nullptr;
  }
  for (unsigned p = from.value(); p < TaskPriority::count; ++p) {
    auto& queue = taskRunQueues_.queue[p];
    TaskImpl* task = queue.current->front();
    if (!task) {
      queue.consecutivePicks = 0;
      continue;
    }
    if (lowerPriorityDue(p, queue.consecutivePicks)) {
      TaskImpl* lower = pickOneTask(now, TaskPriority(static_cast<int>(p + 1)));
      if (lower) {
        queue.consecutivePicks = 0;
        return lower;
      }
    }
    ++queue.consecutivePicks;
    taskSchedulerUnlinkTask(queue, *task, now);
    return task;
  }
  return nullptr;
}

void TaskScheduler::taskSchedulerUnlinkTask(TaskRunQueues::TaskRunQueue& queue, TaskImpl& task,
                                            const TaskTimePoint& now) {
  ++queue.pickCount;
  if (queue.pickCount > queue.enqueueCount) {
    fatal(concat("Task: ", static_cast<const _TaskBase*>(&task), " pickCount: ", queue.pickCount,
                 " enqueueCount: ", queue.enqueueCount));
  }
  task.taskRunQueueLink_.unlink();
  task.schedulingLatencyIs(now - task.taskScheduledTime_);
}

bool TaskScheduler::attemptLowerPriorityBump(TaskPriority priority, unsigned consecutive) const {
  return lowerPriorityDue(priority.value(), consecutive);
}

bool TaskScheduler::lowerPriorityDue(unsigned p, unsigned consecutive) const {
  if (p != TaskPriority::high && p != TaskPriority::normal) {
    return false;
  }
  uint32_t lower = 0;
  for (unsigned q = p; q <= TaskPriority::normal; ++q) {
    lower += kBumpWeight[q] * taskRunQueues_.queue[q + 1].waiting();
  }
  if (lower == 0) {
    return false;
  }
  return lower * consecutive > taskRunQueues_.queue[p].waiting() * kBumpWeight[p - 1];
}

int64_t TaskScheduler::runnableTaskCount(TaskPriority priority) const {
  if (!priority.valid()) {
    fatal(concat(priority));
  }
  const auto& queue = taskRunQueues_.queue[priority.value()];
  int64_t n = static_cast<int64_t>(queue.enqueueCount - queue.pickCount);
  if (n < 0) {
    fatal(concat("Priority: ", priority, " runnableTasks: ", n));
  }
  return n;
}

int64_t TaskScheduler::runnableTaskCount() const {
  int64_t n = 0;
  for (int p = 0; p < static_cast<int>(TaskPriority::count); ++p) {
    n += runnableTaskCount(TaskPriority(p));
  }
  return n;
}

uint64_t TaskScheduler::runTaskCount(TaskPriority priority) const {
  if (!priority.valid()) {
    fatal(concat(priority));
  }
  const auto& queue = taskRunQueues_.queue[priority.value()];
  return queue.pickCount - queue.pickCountAtReset;
}

unsigned TaskScheduler::tasksPerPriority(TaskPriority priority) const {
  auto it = tasksPerPriority_.find(priority);
  return it == tasksPerPriority_.end() ? 0 : it->second;
}

void TaskScheduler::tasksPerPriorityInc(TaskPriority priority) {
  ++tasksPerPriority_[priority];
}

void TaskScheduler::tasksPerPriorityDec(TaskPriority priority) {
  unsigned count = tasksPerPriority(priority);
  if (count == 0) {
    fatal(concat("Priority: ", priority, " count: ", count));
  }
  --tasksPerPriority_[priority];
}

unsigned TaskScheduler::deadTasksPerPriority(TaskPriority priority) const {
  auto it = deadTasksPerPriority_.find(priority);
  return it == deadTasksPerPriority_.end() ? 0 : it->second;
}

void TaskScheduler::deadTasksPerPriorityInc(TaskPriority priority) {
  ++deadTasksPerPriority_[priority];
}

size_t TaskScheduler::registeredTaskCount() const {
  size_t n = 0;
  for (const TaskImpl* t = registeredTasks_.front(); t; t = registeredTasks_.next(*t)) {
    ++n;
  }
  return n;
}

void TaskScheduler::defaultTaskQuantumIs(nanoseconds q) {
  if (q.count() < 0) {
    debugAndThrowAssertException(nullptr, 0, concat("Quantum: ", q), "TaskScheduler",
                                 "defaultTaskQuantumIs", __LINE__);
  }
  defaultTaskQuantum_ = q;
}

void TaskScheduler::taskRunQueuesMovePersistentToTemporary() {
  for (auto& queue : taskRunQueues_.queue) {
    queue.movePersistentToTemporary();
  }
}

void TaskScheduler::taskRunQueuesMoveTemporaryToPersistent() {
  for (auto& queue : taskRunQueues_.queue) {
    queue.moveTemporaryToPersistent();
  }
}

void TaskScheduler::taskForceYieldInTestNotify(TaskImpl* task, bool on) {
  bool wasEmpty = tasksForceYieldInTest_.empty();
  if (on) {
    tasksForceYieldInTest_.insert(task);
  } else {
    tasksForceYieldInTest_.erase(task);
  }
  if (wasEmpty != tasksForceYieldInTest_.empty()) {
    handleTaskForceYieldInTest();
  }
}

}  // namespace Tarvo
