// Per-priority queue statistics, their sums over a tree, and the two statistics resets: all
// at once (clearStats) and incrementally by the scheduler's reset task (resetStats).
#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerText.h"

namespace Tarvo {

namespace {

// Resets its scheduler's tasks a quantum's worth at a time. It does not keep the scheduler
// alive (the scheduler owns it), so it holds the scheduler only for the length of a run.
class ResetStatsTask : public Task {
 public:
  ResetStatsTask(TaskScheduler* scheduler, TaskPriority priority)
      : Task(std::shared_ptr<TaskScheduler>(std::shared_ptr<TaskScheduler>(), scheduler), priority,
             scheduler->schedulerName().str() + ";ResetStats") {}
  void taskExecute() override {
    std::shared_ptr<TaskScheduler> hold = scheduler()->weak_from_this().lock();
    scheduler()->handleResetStatsTaskRun();
  }
};

}  // namespace

TaskSchedulerPriorityStats& TaskSchedulerPriorityStats::operator+=(
    const TaskSchedulerPriorityStats& other) {
  if (priority != other.priority) {
    fatal(concat(priority, " != ", other.priority));
  }
  runnable += other.runnable;
  notRunnable += other.notRunnable;
  dead += other.dead;
  runs += other.runs;
  return *this;
}

TaskSchedulerQueueStats& TaskSchedulerQueueStats::operator+=(const TaskSchedulerQueueStats& other) {
  for (const auto& [priority, stats] : other) {
    auto [it, inserted] = emplace(priority, stats);
    if (!inserted) {
      it->second += stats;
    }
  }
  return *this;
}

TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  TaskSchedulerQueueStats result;
  for (unsigned p = 0; p < TaskPriority::count; ++p) {
    TaskPriority priority(static_cast<int>(p));
    auto runnable = static_cast<uint32_t>(runnableTaskCount(priority));
    TaskSchedulerPriorityStats stats{priority, runnable, tasksPerPriority(priority) - runnable,
                                     deadTasksPerPriority(priority), runTaskCount(priority)};
    if (!result.emplace(priority, stats).second) {
      fatal(concat("Priority: ", priority, " insert failed"));
    }
  }
  return result;
}

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  TaskSchedulerQueueStats result;
  for (const TaskScheduler* s : registeredSchedulers()) {
    result += s->queueStats();
  }
  return result;
}

void TaskScheduler::deadTasksPerPriorityDec(TaskPriority priority) {
  unsigned count = deadTasksPerPriority(priority);
  if (count == 0) {
    fatal(concat("Priority: ", priority, " count: ", count));
  }
  --deadTasksPerPriority_[priority];
}

bool TaskScheduler::resetStatsInProgress() const {
  return resetStatsTask_ && resetStatsTask_->taskScheduled();
}

bool TaskSchedulerRoot::resetStatsInProgress() const {
  for (const TaskScheduler* s : registeredSchedulers()) {
    if (s == this ? TaskScheduler::resetStatsInProgress() : s->resetStatsInProgress()) {
      return true;
    }
  }
  return false;
}

void TaskScheduler::clearStatsCommon() {
  for (auto& queue : taskRunQueues_.queue) {
    queue.pickCountAtReset = queue.pickCount;
  }
  schedulerLatencyHighWaterMark_ = nanoseconds(0);
  deadTaskStats_.clear();
  deadTasksPerPriority_.clear();
}

void TaskScheduler::clearStats() {
  clearStatsCommon();
  for (TaskImpl* t = registeredTasks_.front(); t; t = registeredTasks_.next(*t)) {
    t->resetStats();
  }
}

void TaskScheduler::resetStats() {
  if (!resetStatsTask_) {
    // A group that admits one priority only gets its reset task at that priority.
    auto* group = dynamic_cast<TaskGroup*>(this);
    TaskPriority priority = group && group->taskGroupPriorityEnforced()
                                ? group->taskGroupPriority()
                                : TaskPriority(TaskPriority::normal);
    resetStatsTask_ = std::make_shared<ResetStatsTask>(this, priority);
  }
  resetStatsTask_->scheduleTask();
  resetStatsBookmark_.unlink();
  resetStatsBookmark_.insertBefore(registeredTasks_.begin());
}

void TaskScheduler::handleResetStatsTaskRun() {
  check(resetStatsBookmark_.isLinked(), "resetStatsBookmark.isLinked()");
  TaskImpl* task = registeredTasks_.elementAfter(resetStatsBookmark_);
  resetStatsBookmark_.unlink();
  TaskImpl* const resetTask = resetStatsTask_.get();
  unsigned long long count = 0;
  for (; task; task = registeredTasks_.next(*task)) {
    // The reset task keeps its own figures: they describe the resets.
    if (task == resetTask) {
      continue;
    }
    if (count != 0 && resetTask->taskShouldYield()) {
      resetStatsBookmark_.insertBefore(RegisteredTaskList::ConstIterator(
          &registeredTasks_, task->taskRegisteredLink_.hook_.this_ptr()));
      resetTask->taskWorkCountInc(count);
      resetTask->scheduleTask();
      return;
    }
    ++count;
    task->resetStats();
  }
  resetTask->taskWorkCountInc(count);
  clearStatsCommon();
}

void TaskScheduler::resetStatsTaskRelease() {
  resetStatsBookmark_.unlink();
  resetStatsTask_.reset();
}

}  // namespace Tarvo
