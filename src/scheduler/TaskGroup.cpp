// Task groups: a child scheduler run, one turn at a time, by a task of its parent.
#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "platform/ProcessClock.h"
#include "scheduler/SchedulerText.h"

namespace Tarvo {

TaskGroup::ParentTask::ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority,
                                  const std::string& name, TaskGroup* group)
    : Task(std::move(parent), priority, name), group_(group) {}

void TaskGroup::ParentTask::taskExecute() {
  // The group's tasks may let go of it during the turn; keep it until the turn is over.
  std::shared_ptr<TaskScheduler> hold = group_->weak_from_this().lock();
  group_->runTurn(*this);
}

TaskGroup::TaskGroup(const std::string& name, TaskPriority priority, bool taskGroupPriorityEnforced,
                     std::shared_ptr<TaskScheduler> parent)
    : TaskScheduler(name, parent->root(), parent->history()),
      parentScheduler_(std::move(parent)),
      taskGroupPriority_(priority),
      taskGroupPriorityEnforced_(taskGroupPriorityEnforced) {
  defaultTaskQuantumIs(parentScheduler_->defaultTaskQuantum());
  root()->registerScheduler(this);
  parentTask_ = std::make_shared<ParentTask>(parentScheduler_, priority, name + ";TaskGroup", this);
}

TaskGroup::~TaskGroup() {
  // While this object is still a TaskGroup: the reset task's and the parent task's
  // departures call back into it.
  resetStatsTaskRelease();
  parentTask_.reset();
  root()->unregisterScheduler(this);
}

std::shared_ptr<TaskGroup> TaskGroupIs(const std::string& name, TaskPriority priority,
                                       bool taskGroupPriorityEnforced,
                                       std::shared_ptr<TaskScheduler> parent) {
  return std::make_shared<TaskGroup>(name, priority, taskGroupPriorityEnforced, std::move(parent));
}

void TaskGroup::requestSchedulerRun() {
  // Within a turn every inner run asks again while the parent task is queued already; that
  // case needs no call (the inner run has passed the thread check).
  if (!parentTask_->taskRunQueueLink_.isLinked()) {
    parentTask_->scheduleTask();
  }
}

void TaskGroup::handleTaskForceYieldInTest() {
  taskGroupForceYieldInTestIs(tasksForceYieldInTest());
}

void TaskGroup::taskGroupForceYieldInTestIs(bool on) {
  if (on == taskGroupForceYieldInTest_) {
    return;
  }
  taskGroupForceYieldInTest_ = on;
  // Through the parent task's own ratio, so that its scheduler (a group too, perhaps) hears
  // of it and passes it on.
  parentTask_->taskForceYieldInTestIs(on);
}

void TaskGroup::taskRegister(TaskImpl* task) {
  if (taskGroupPriorityEnforced_ && task->taskPriority() != taskGroupPriority_) {
    fatal(concat("taskPriority( ", task->taskPriority(), " ) != taskGroupPriority( ",
                 taskGroupPriority_, " )"));
  }
  TaskScheduler::taskRegister(task);
}

bool TaskGroup::taskPickable() const {
  for (unsigned p = 0; p < TaskPriority::count; ++p) {
    if (taskRunQueue(TaskPriority(static_cast<int>(p))).current->front()) {
      return true;
    }
  }
  return false;
}

void TaskGroup::runTurn(ParentTask& parent) {
  const bool split = !tasksPermittedMultipleRuns_;
  if (split) {
    taskRunQueuesMovePersistentToTemporary();
  }
  unsigned long long count = 0;
  // Under the real-time rule the budget is checked against the end stamp of the inner run
  // (the group's last run request), which spares a clock read per inner run. The mode and
  // the quantum are read after every inner run: an inner task may change either (a test
  // yield switched on, a new group quantum), and the turn follows at once.
  const TaskTimePoint turnStart = processClockNow();
  try {
    // A suspended root ignores every run; the turn then ends at once.
    while (!root()->suspended() && taskPickable()) {
      ++count;
      handleSchedulerRun();
      if (parent.taskShouldYieldMode() == TaskImpl::realTime
              ? lastRunRequestTime() < turnStart ||
                    lastRunRequestTime() - turnStart >= parent.taskQuantum()
              : parent.taskShouldYield()) {
        break;
      }
    }
  } catch (...) {
    // The failed run has requested the next turn already; put back the held-back tasks.
    if (split) {
      taskRunQueuesMoveTemporaryToPersistent();
    }
    throw;
  }
  if (split) {
    taskRunQueuesMoveTemporaryToPersistent();
  }
  parent.taskWorkCountInc(count);
  const int64_t waiting = runnableTaskCount();
  parent.taskWorkPendingIs(static_cast<unsigned>(waiting));
  if (waiting == 0) {
    if (schedulerHasRunnableTasks()) {
      schedulerHasRunnableTasksIs(false, processClockNow());
    }
    if (parent.taskScheduled()) {
      parent.unscheduleTask();
    }
    return;
  }
  if (!parent.taskScheduled() && root()->suspended()) {
    // Nothing ran; the turn is owed once the root resumes.
    parent.scheduleTask();
  }
  check(parent.taskScheduled(), "TaskGroup parentTask should be scheduled.");
  check(schedulerHasRunnableTasks(), "The TaskGroup should have runnable tasks");
}

}  // namespace Tarvo
