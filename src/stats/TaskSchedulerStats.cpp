// The scheduler's task statistics: snapshots of live tasks and the dead-task records.
#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerText.h"

namespace Tarvo {

unsigned TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const {
  unsigned skipped = 0;
  for (const TaskImpl* t = registeredTasks_.front(); t; t = registeredTasks_.next(*t)) {
    if (includeNoRuns || t->taskRunCount() != 0) {
      out->push_back(t->getStats());
    } else {
      ++skipped;
    }
  }
  return skipped;
}

unsigned TaskScheduler::getDeadTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const {
  unsigned skipped = 0;
  for (const auto& [name, stat] : deadTaskStats_) {
    if (includeNoRuns || stat.taskRunCount() != 0) {
      out->push_back(stat);
    } else {
      ++skipped;
    }
  }
  return skipped;
}

TaskStat TaskScheduler::taskStatForTest(const std::string& name) const {
  for (const TaskImpl* t = registeredTasks_.front(); t; t = registeredTasks_.next(*t)) {
    if (t->taskName().str() == name) {
      return t->getStats();
    }
  }
  return TaskStat();
}

TaskStat TaskScheduler::deadTaskStatForTest(const std::string& name) const {
  auto it = deadTaskStats_.find(nameCache().intern(name));
  return it == deadTaskStats_.end() ? TaskStat() : it->second;
}

void TaskScheduler::deadTaskStatsInc(const ConstStringRef& name, TaskStat stat) {
  auto it = deadTaskStats_.find(name);
  if (it == deadTaskStats_.end()) {
    deadTaskStats_.emplace(name, std::move(stat));
  } else {
    it->second += stat;
  }
}

void TaskScheduler::updateDeadTaskStats(TaskImpl* task) {
  if (!task->includeInDeadTask()) {
    // No record, but the task is no longer a live one.
    tasksPerPriorityDec(task->taskPriority());
    return;
  }
  const _TaskBase* base = task;
  TaskPriority priority = task->taskPriority();
  if (!priority.valid()) {
    fatal(concat(priority));
  }
  TaskStat stat = task->getStats();
  stat.taskNameIs(task->taskStatsName());
  if (stat.taskDeadCount() != 0) {
    fatal(concat("Task: ", base, " deadCount: ", stat.taskDeadCount()));
  }
  stat.taskDeadCountIs(1);
  deadTaskStatsInc(task->taskStatsName(), std::move(stat));
  unsigned live = tasksPerPriority(priority);
  if (live == 0) {
    fatal(concat("Task: ", base, " tasksPerPriority: ", live));
  }
  tasksPerPriorityDec(priority);
  deadTasksPerPriorityInc(priority);
}

}  // namespace Tarvo
