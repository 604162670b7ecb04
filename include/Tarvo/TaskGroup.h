// Task groups: a child scheduler whose tasks run, as a whole, inside one task of its parent.
// Declared with the scheduler: TaskScheduler.h includes this header, and this one includes it.
//
// The parent sees a group as one task, its ParentTask, named "<group name>;TaskGroup", with
// one priority and one quantum. Each turn of that task runs the group's tasks back to back
// (pickOneTask's rules inside the group, no event-loop pass between them) until no task is
// waiting or the parent task's quantum is used up, counted from the start of the turn to the
// end of the last inner run; that quantum is the time budget of the whole group per turn. With
// tasksPermittedMultipleRunsIs(false) a turn runs only the tasks that were waiting when it started,
// each at most once. Groups nest: the parent may itself be a group.
//
//   auto conns = Tarvo::TaskGroupIs("conns", Tarvo::TaskPriority::normal, true, root);
//   conns->taskGroupQuantumIs(2ms);
//   auto c = std::make_shared<Conn>(conns, Tarvo::TaskPriority::normal, "conn");
//
// Threads: the thread of the tree's root, as for every scheduler.
// Lifetime: create groups with TaskGroupIs (std::make_shared): tasks hold their group through
// std::shared_ptr, and the parent task finds its group through the group's weak self-reference.
// The group holds its parent scheduler; its parent task dies with it.
// Failures: a task of another priority in a group created with enforcement, and a group whose
// waiting tasks and parent task disagree after a turn, end the process. An exception from an
// inner task passes out through the parent task's run to whoever drives the tree; the group
// stays consistent and the next run goes on with the remaining tasks.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

// A child scheduler whose tasks run inside one task of its parent; see the top of this file.
class TaskGroup : public TaskScheduler {
 public:
  // The group's task in its parent scheduler; each of its runs is one turn of the group.
  class ParentTask : public Task {
   public:
    // The task of `group` in `parent`, at the group's priority.
    ParentTask(std::shared_ptr<TaskScheduler> parent, TaskPriority priority,
               const std::string& name, TaskGroup* group);
    void taskExecute() override;

   private:
    // Not owning: the group owns this task and destroys it first.
    TaskGroup* group_;
  };

  // `taskGroupPriorityEnforced`: every task of the group must have `priority`. The group
  // starts with the parent's default task quantum as its own; the parent task has the
  // parent's default quantum.
  TaskGroup(const std::string& name, TaskPriority priority, bool taskGroupPriorityEnforced,
            std::shared_ptr<TaskScheduler> parent);
  ~TaskGroup() override;

  // Schedules the parent task.
  void requestSchedulerRun() override;
  // The parent task yields under test while any task of the group does.
  void handleTaskForceYieldInTest() override;
  // Ends the process with "taskPriority( <p> ) != taskGroupPriority( <q> )" when the group
  // enforces its priority and the task has another.
  void taskRegister(TaskImpl* task) override;

  // The group's priority, whether it is enforced, and the parent scheduler.
  TaskPriority taskGroupPriority() const noexcept { return taskGroupPriority_; }
  bool taskGroupPriorityEnforced() const noexcept { return taskGroupPriorityEnforced_; }
  const std::shared_ptr<TaskScheduler>& parentScheduler() const noexcept {
    return parentScheduler_;
  }
  // The parent task's quantum: the group's time budget per turn (limits of taskQuantumIs and
  // taskQuantumNoCheckIs).
  nanoseconds taskGroupQuantum() const noexcept { return parentTask_->taskQuantum(); }
  void taskGroupQuantumIs(nanoseconds q) { parentTask_->taskQuantumIs(q); }
  void taskGroupQuantumNoCheckIs(nanoseconds q) { parentTask_->taskQuantumNoCheckIs(q); }
  // Whether a task may run again within the turn that rescheduled it (true by default).
  bool tasksPermittedMultipleRuns() const noexcept { return tasksPermittedMultipleRuns_; }
  void tasksPermittedMultipleRunsIs(bool permitted) noexcept {
    tasksPermittedMultipleRuns_ = permitted;
  }
  bool taskGroupForceYieldInTest() const noexcept { return taskGroupForceYieldInTest_; }
  // Makes the parent task yield on every check (true) or follow the normal rules (false).
  void taskGroupForceYieldInTestIs(bool on);

  // The parent task's runs (the turns so far), whether it is scheduled, and the task itself.
  uint32_t parentTaskRunCount() const noexcept { return parentTask_->taskRunCount(); }
  bool parentTaskScheduled() const { return parentTask_->taskScheduled(); }
  const ParentTask& parentTask() const noexcept { return *parentTask_; }
  // Runs one turn of the group now, outside the parent's loop.
  void taskGroupRunFromTest() { parentTask_->taskRunFromTest(); }

 private:
  // One turn: the body of ParentTask::taskExecute().
  void runTurn(ParentTask& parent);
  // Whether a task can be picked now (the split-off lists while a turn holds them apart).
  bool taskPickable() const;

  std::shared_ptr<ParentTask> parentTask_;
  std::shared_ptr<TaskScheduler> parentScheduler_;
  TaskPriority taskGroupPriority_;
  bool taskGroupPriorityEnforced_;
  bool taskGroupForceYieldInTest_ = false;
  bool tasksPermittedMultipleRuns_ = true;
};

// Creates a group with std::make_shared (the only way a group can hold tasks).
std::shared_ptr<TaskGroup> TaskGroupIs(const std::string& name, TaskPriority priority,
                                       bool taskGroupPriorityEnforced,
                                       std::shared_ptr<TaskScheduler> parent);

}  // namespace Tarvo
