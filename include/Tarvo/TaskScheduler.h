// The task scheduler: tasks, schedulers with per-priority run queues, and the root of a
// scheduler tree. Including this header gives the whole scheduler API.
//
// Model. A task (subclass Task and implement taskExecute()) belongs to one scheduler at one
// priority. scheduleTask() puts it at the back of its priority's run queue; each scheduler run
// picks one task and calls its taskExecute() once. A long job checks taskShouldYield() and
// schedules itself again. Schedulers form a tree under one TaskSchedulerRoot, which owns the
// tree's switches (suspend, virtual time, test yield ratio, thread check) and its history.
//
// Threads. A tree and all its tasks belong to the thread that created the root. Scheduling,
// unscheduling, taskScheduled() and registration check this and end the process with
// "Executing in wrong thread ..." when called elsewhere, unless the check is disabled, an
// auxiliary thread is registered (Platform::auxThreadCountInc) or the process is a forked
// child. Nothing here locks, and scheduling, picking and running allocate nothing.
//
// Failures. Misuse that the scheduler cannot survive (a task linked twice, a task destroyed
// inside its own run, an out-of-range priority or quantum, corrupt queue counts) ends the
// process with a message naming the fault. Exceptions thrown by a task's taskExecute() pass
// through the scheduler run to whoever drives it; the scheduler stays consistent.
//
// Driving a tree without an event loop: TaskSchedulerRootManual (bottom of this file).
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Tarvo/ConstStringCache.h"
#include "Tarvo/IntrusiveBookmarkLinkedList.h"
#include "Tarvo/IntrusiveLinkedListBase.h"
#include "Tarvo/SchedulerHistory.h"
#include "Tarvo/SchedulerStats.h"
#include "Tarvo/TaskClock.h"
#include "Tarvo/TaskPriority.h"
#include "Tarvo/TaskStat.h"

namespace Tarvo {

class TaskScheduler;
class TaskSchedulerRoot;
class TimerTask;

// Identity, scheduler link, priority, names and busy state shared by every kind of task.
// Owned through std::shared_ptr; a task keeps its scheduler alive. A task that no
// std::shared_ptr owns cannot be held through its run: the scheduler run that picks it throws
// std::bad_weak_ptr and drops it (it is no longer queued), and the other tasks run on.
class _TaskBase : public std::enable_shared_from_this<_TaskBase> {
 public:
  _TaskBase(const _TaskBase&) = delete;
  _TaskBase& operator=(const _TaskBase&) = delete;

  // Whether the task is on its run queue; whether a running task should yield; work done in
  // this run and work still pending, for the statistics. TaskImpl gives the details.
  virtual bool taskScheduled() const = 0;
  virtual bool taskShouldYield() const = 0;
  virtual void taskWorkCountInc(unsigned long long n) = 0;
  virtual void taskWorkPendingIs(unsigned n) = 0;
  // Called when the task turns busy (scheduled) or idle; does nothing here.
  virtual void handleTaskBusy() {}
  // Called by a statistics reset so that task kinds can reset state of their own.
  virtual void handleResetStats() {}
  virtual ~_TaskBase();

  // The task's scheduler (plain and shared), the root of its tree, and its name.
  TaskScheduler* scheduler() const noexcept { return scheduler_.get(); }
  const std::shared_ptr<TaskScheduler>& schedulerShared() const noexcept { return scheduler_; }
  TaskSchedulerRoot* root() const noexcept;
  const ConstStringRef& taskName() const noexcept { return taskName_; }
  // The name under which statistics and history record the task; the task name unless set.
  const ConstStringRef& taskStatsName() const noexcept { return taskStatsName_; }
  void taskStatsNameIs(const std::string& name);
  TaskPriority taskPriority() const noexcept { return taskPriority_; }
  // True from being scheduled until a run ends with the task not scheduled again.
  bool taskBusy() const noexcept { return taskBusy_; }

  // Records an event of this task in its tree's history.
  inline void taskHistoryInsert(const TaskTimePoint& when, TaskSchedulerEventType type) const;

 protected:
  // Ends the process with "Need a TaskScheduler" when `scheduler` is null.
  _TaskBase(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
            const std::string& name);
  void taskBusyIs(bool busy, const TaskTimePoint& now) {
    if (busy != taskBusy_) {
      taskBusyChanged(busy, now);
    }
  }
  void taskBusyChanged(bool busy, const TaskTimePoint& now);

  std::shared_ptr<TaskScheduler> scheduler_;
  ConstStringRef taskName_;
  ConstStringRef taskStatsName_;
  TaskPriority taskPriority_;
  uint8_t taskTestYieldRatio_ = 0;
  uint8_t taskTestYieldRatioEffective_ = 0;
  mutable uint8_t taskYieldCallCount_ = 0;
  bool taskBusy_ = false;
};

// "<name>@<key>" for trace lines; "NULL" for a null task. "<count>ns" for a duration. Each
// is written as one piece of text: the stream's number format does not apply, and a width
// set by the caller pads the whole text.
std::ostream& operator<<(std::ostream& os, const _TaskBase* task);
std::ostream& operator<<(std::ostream& os, const std::chrono::nanoseconds& d);

// Run-queue state, timing, quantum, yield policy and statistics counters of a task.
class TaskImpl : public _TaskBase {
 public:
  // Durations of the task's accounting.
  using nanoseconds = std::chrono::nanoseconds;
  // How taskShouldYield() decides: elapsed real time against the quantum; virtual time (not
  // supported while running: throws UnimplementedException); every n-th call (tests).
  enum TaskShouldYieldMode : uint8_t { realTime = 0, virtualTime = 1, testYieldRatio = 2 };
  static constexpr uint32_t taskMagicNumberConstructed = 0x42be5afe;
  static constexpr uint32_t taskMagicNumberDestroyed = 0xdeaddead;

  // True while the task is on a run queue.
  bool taskScheduled() const override;
  // Whether a running task should return and reschedule itself. Outside taskExecute() it
  // applies the real-time rule before the first run and ends the process after one.
  bool taskShouldYield() const override;
  // Reports `n` units of work done in this run: last count, total, decaying average
  // ((9 * avg + n) / 10 after the first) and high-water mark. A count of 2^32 or more sets
  // the mark to its low 32 bits, even when that lowers it (4294967295 is kept as 4294967294).
  void taskWorkCountInc(unsigned long long n) override;
  // Reports `n` units of work still waiting, with its high-water mark.
  void taskWorkPendingIs(unsigned n) override;
  // Unschedules and unregisters; the statistics go into the scheduler's dead-task records.
  ~TaskImpl() override;

  // Appends the task to its priority's run queue unless it is queued already. A suspended
  // task is not queued (history "scheduleSus").
  virtual void scheduleTask();
  // Runs the task now, outside the scheduler loop, taking it off its run queue first.
  virtual void taskRunFromTest();
  virtual TaskStat::TaskStatus taskStatus() const;
  // The work of one run.
  virtual void taskExecute() = 0;

  // Takes the task off its run queue, if it is on one.
  void unscheduleTask();
  bool taskSuspended() const noexcept { return taskSuspended_; }
  // Suspending unschedules the task; resuming queues it (even if nobody scheduled it).
  void taskSuspendedIs(bool suspended);
  nanoseconds taskQuantum() const noexcept { return taskQuantum_; }
  // Ends the process with "Quantum: <q>" above one second or at zero and below.
  void taskQuantumIs(nanoseconds q);
  // Ends the process with "Quantum: <q>" at zero and below; any positive value is accepted.
  void taskQuantumNoCheckIs(nanoseconds q);
  TaskShouldYieldMode taskShouldYieldMode() const noexcept { return taskShouldYieldMode_; }
  // The task's own test yield ratio: taskShouldYield() answers true on every r-th call
  // (0 = use the root's ratio).
  void taskTestYieldRatioIs(uint8_t r);
  uint8_t taskTestYieldRatio() const noexcept { return taskTestYieldRatio_; }
  uint8_t taskTestYieldRatioEffective() const noexcept { return taskTestYieldRatioEffective_; }
  // Yield on every call (true) or use the normal rules (false).
  void taskForceYieldInTestIs(bool on) { taskTestYieldRatioIs(on ? 1 : 0); }
  // Re-derives the yield mode from the task's and the root's settings.
  void taskShouldYieldModeReevaluate();
  bool includeInDeadTask() const noexcept { return includeInDeadTask_; }
  void includeInDeadTaskIs(bool include) noexcept { includeInDeadTask_ = include; }

  // A snapshot of the task's counters, under its statistics name.
  TaskStat getStats() const;
  // Zeroes the run and work counters and unsets the high-water marks.
  void resetStats();

  // Runs taskExecute() once with accounting; called by the scheduler after picking the task.
  void taskDoRun(const TaskTimePoint& start, TaskTimePoint* end);
  // As taskRunFromTest(), and records the run as a scheduler run would (latency, run time).
  void taskRunAndRecordFromTest();

  // The counters of the task's runs and work, as getStats() reports them; the magic number
  // is taskMagicNumberConstructed while the object lives.
  bool taskCurrentlyRunning() const noexcept { return taskCurrentlyRunning_; }
  uint32_t taskRunCount() const noexcept { return taskRunCount_; }
  uint32_t taskMagicNumber() const noexcept { return taskMagicNumber_; }
  uint32_t taskQuantumViolation200() const noexcept { return taskQuantumViolation200_; }
  uint32_t taskQuantumViolation500() const noexcept { return taskQuantumViolation500_; }
  nanoseconds taskRunTimeTotal() const noexcept { return taskRunTimeTotal_; }
  nanoseconds taskRunTimeHighWaterMark() const noexcept { return taskRunTimeHighWaterMark_; }
  nanoseconds taskLastSchedulingLatency() const noexcept { return taskLastSchedulingLatency_; }
  nanoseconds taskSchedulingLatencyHighWaterMark() const noexcept {
    return taskSchedulingLatencyHighWaterMark_;
  }
  uint64_t taskWorkCountLast() const noexcept { return taskWorkCountLast_; }
  float taskWorkCountDecayAvg() const noexcept { return taskWorkCountDecayAvg_; }
  TaskMaybeU32 taskWorkCountHighWaterMark() const noexcept { return taskWorkCountHighWaterMark_; }

  // The links of the task on its run queue and on its scheduler's registration list.
  ListLinkNode<TaskImpl> taskRunQueueLink_;
  BookmarkListLinkNode<TaskImpl> taskRegisteredLink_;

 protected:
  TaskImpl(std::shared_ptr<TaskScheduler>&& scheduler, TaskPriority priority,
           const std::string& name);
  // Unschedules, unregisters and marks the task destroyed, for kinds that must leave their
  // scheduler before their own destructor ends.
  void handleDestroy();

 private:
  friend class TaskScheduler;
  friend class TimerTask;

  void handleInitialized();
  __attribute__((visibility("hidden"))) static uint32_t magicNumberAfterRun(const TaskImpl* task);
  void unscheduleTaskPrivate(const TaskTimePoint& now);
  __attribute__((visibility("hidden"))) void schedulingLatencyIs(nanoseconds latency) noexcept;
  void taskTestYieldRatioEffectiveIs(uint8_t r);
  void taskShouldYieldModeIs(TaskShouldYieldMode mode);
  bool taskRegistered() const noexcept { return taskRegisteredLink_.isLinked(); }

  bool taskSuspended_ = false;
  TaskShouldYieldMode taskShouldYieldMode_ = realTime;
  bool taskCurrentlyRunning_ = false;
  nanoseconds taskQuantum_;
  TaskTimePoint taskScheduledTime_{};
  TaskTimePoint taskRunStartTime_{};
  nanoseconds taskLastSchedulingLatency_{0};
  nanoseconds taskSchedulingLatencyHighWaterMark_{0};
  nanoseconds taskRunTimeTotal_{0};
  nanoseconds taskRunTimeHighWaterMark_{0};
  uint64_t taskWorkCountLast_ = 0;
  uint64_t taskWorkCountTotal_ = 0;
  float taskWorkCountDecayAvg_ = 0;
  TaskMaybeU32 taskWorkCountHighWaterMark_;
  uint32_t taskWorkPending_ = 0;
  TaskMaybeU32 taskWorkPendingHighWaterMark_;
  uint32_t taskQuantumViolation500_ = 0;
  uint32_t taskQuantumViolation200_ = 0;
  uint32_t taskRunCount_ = 0;
  uint32_t taskMagicNumber_ = 0;
  bool includeInDeadTask_ = true;
};

// The plain user task: subclass it and implement taskExecute().
//
//   class Flush : public Tarvo::Task {
//    public:
//     using Task::Task;
//     void taskExecute() override { ... if (more) scheduleTask(); }
//   };
//   auto t = std::make_shared<Flush>(root, Tarvo::TaskPriority::normal, "flush");
//   t->scheduleTask();
class Task : public TaskImpl {
 public:
  // A task of `scheduler` at `priority`, registered with it, not scheduled.
  Task(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const std::string& name);
  // Takes a shared reference from the scheduler; throws std::bad_weak_ptr when the scheduler
  // is not owned by a std::shared_ptr.
  Task(TaskScheduler* scheduler, TaskPriority priority, const std::string& name);
};

// A scheduler: the tasks registered with it and one run queue per priority. Abstract; the
// root and task groups say how a run is requested. Each run (handleSchedulerRun) executes at
// most one task; while work remains, every run requests the next.
class TaskScheduler : public std::enable_shared_from_this<TaskScheduler> {
 public:
  // Durations of the scheduler's accounting.
  using nanoseconds = std::chrono::nanoseconds;
  // A run queue, and the list of the registered tasks.
  using TaskList = List<TaskImpl, ListLinkNode<TaskImpl>, &TaskImpl::taskRunQueueLink_>;
  using RegisteredTaskList =
      BookmarkList<TaskImpl, BookmarkListLinkNode<TaskImpl>, &TaskImpl::taskRegisteredLink_>;
  // The quantum of new tasks unless defaultTaskQuantumIs() says otherwise: 20 ms.
  static constexpr nanoseconds defaultQuantum{20000000};

  // The run queues of a scheduler, one per priority.
  struct TaskRunQueues {
    // One priority's queue. `current` is `persistent` except while a task group runs with
    // repeated runs forbidden; then the waiting tasks sit in `temporary` and new ones land in
    // `persistent`, unseen until the merge.
    struct TaskRunQueue {
      // The queues (see above), the picks in a row at this priority (for the starvation rule),
      // and the counts of tasks queued and picked (picks also as of the last statistics reset).
      TaskList persistent;
      TaskList temporary;
      TaskList* current = &persistent;
      uint32_t consecutivePicks = 0;
      uint64_t enqueueCount = 0;
      uint64_t pickCount = 0;
      uint64_t pickCountAtReset = 0;

      // Tasks waiting on the queue, from the counters.
      uint32_t waiting() const noexcept { return static_cast<uint32_t>(enqueueCount - pickCount); }
      // Moves the waiting tasks aside; throws AssertException if `temporary` is not empty.
      void movePersistentToTemporary();
      // Puts the held-back tasks in front of those scheduled meanwhile.
      void moveTemporaryToPersistent();
    };
    // Indexed by priority value.
    TaskRunQueue queue[TaskPriority::count];
  };

  // A scheduler named `name` in the tree of `root`, recording into `history`.
  TaskScheduler(const std::string& name, TaskSchedulerRoot* root,
                std::shared_ptr<TaskSchedulerHistory> history);
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  // Whether an incremental statistics reset (resetStats()) is under way.
  virtual bool resetStatsInProgress() const;
  // The statistics report of this scheduler (see SchedulerStats.h for the layout): its live
  // tasks (only those that ran unless `includeNoRuns`; at most `taskLimit` rows), its dead
  // records when `deadTaskLimit` is not 0, and, when `historyLimit` is not 0, a line saying
  // that the history is in the root's report. `hideWorkCounts` puts a "." in place of each
  // work-count figure of the live table. The root's override reports the whole tree.
  virtual void printStats(std::ostream& os, bool includeNoRuns, bool hideWorkCounts,
                          unsigned taskLimit, unsigned deadTaskLimit, unsigned historyLimit) const;
  // Asks whoever drives this scheduler for one call of handleSchedulerRun().
  virtual void requestSchedulerRun() = 0;
  // Called when the set of tasks under forced test yield turns empty or non-empty.
  virtual void handleTaskForceYieldInTest() = 0;
  // Adds a task to the registration list; ends the process on a wrong thread, an invalid
  // priority or a task registered already.
  virtual void taskRegister(TaskImpl* task);
  virtual ~TaskScheduler();

  // The scheduler's name, its root, the tree's history and the tree's name cache.
  const ConstStringRef& schedulerName() const noexcept { return schedulerName_; }
  TaskSchedulerRoot* root() const noexcept { return root_; }
  const std::shared_ptr<TaskSchedulerHistory>& history() const noexcept { return history_; }
  ConstStringCache& nameCache() const noexcept { return history_->nameCache(); }

  // Removes a leaving task, folding its statistics into the dead-task records; ends the
  // process on a wrong thread, a task still queued or a task not registered.
  void taskUnregister(TaskImpl* task);
  // Runs at most one task: the one pickOneTask() chooses. A run that finds nothing marks
  // the scheduler idle; a run that ran a task requests the next run, also when the task
  // threw (the exception then passes on), so that the remaining tasks still run.
  void handleSchedulerRun();
  // Takes the next task to run, from priority `from` downwards, or null.
  TaskImpl* pickOneTask(const TaskTimePoint& now, TaskPriority from);
  // Whether a lower priority gets a turn before `priority` (weights 64, 8, 1).
  bool attemptLowerPriorityBump(TaskPriority priority, unsigned consecutive) const;
  bool schedulerHasRunnableTasks() const noexcept { return schedulerHasRunnableTasks_; }
  void schedulerHasRunnableTasksIs(bool runnable, const TaskTimePoint& now) {
    if (runnable != schedulerHasRunnableTasks_) {
      schedulerRunnableChanged(runnable, now);
    }
  }
  void requestSchedulerRunAndRecord(TaskTimePoint now);
  // When the last run was requested: the end of the last task run, as a rule.
  TaskTimePoint lastRunRequestTime() const noexcept { return lastRunRequestTime_; }
  void checkSchedulerLatency();
  nanoseconds schedulerLatencyHighWaterMark() const noexcept {
    return schedulerLatencyHighWaterMark_;
  }

  // Tasks waiting on the queue of a priority (or of all); runs at a priority since the last
  // statistics reset; registered and dead tasks per priority, and their upkeep; the number of
  // registered tasks.
  int64_t runnableTaskCount(TaskPriority priority) const;
  int64_t runnableTaskCount() const;
  uint64_t runTaskCount(TaskPriority priority) const;
  unsigned tasksPerPriority(TaskPriority priority) const;
  void tasksPerPriorityInc(TaskPriority priority);
  void tasksPerPriorityDec(TaskPriority priority);
  unsigned deadTasksPerPriority(TaskPriority priority) const;
  void deadTasksPerPriorityInc(TaskPriority priority);
  // Ends the process with "Priority: <p> count: 0" when no dead task of `priority` is counted.
  void deadTasksPerPriorityDec(TaskPriority priority);
  size_t registeredTaskCount() const;

  // Per-priority counts of this scheduler: one entry for each priority 0 to 4.
  TaskSchedulerQueueStats queueStats() const;
  // The figures of printStats(): live tasks, dead records (when `includeDeadTasks`), the
  // per-priority counts and the scheduler slip.
  TaskSchedulerStatsSnapshot statsSnapshot(bool includeNoRuns, bool includeDeadTasks) const;
  // Resets every statistic at once: each task's counters, the run counts per priority, the
  // scheduler slip, the dead-task records and dead counts.
  void clearStats();
  // Starts an incremental reset (or starts it over): the task "<scheduler name>;ResetStats"
  // (normal priority) resets tasks in list order, yielding by its own quantum after at least
  // one task per run; the per-priority figures and dead records are cleared by its last run.
  // Tasks registered meanwhile start with fresh counters and are not visited.
  void resetStats();
  // One run of the incremental reset; called by the reset task.
  void handleResetStatsTaskRun();
  // The reset task, once resetStats() has created it (null before).
  const std::shared_ptr<TaskImpl>& resetStatsTask() const noexcept { return resetStatsTask_; }

  // The quantum new tasks start with.
  nanoseconds defaultTaskQuantum() const noexcept { return defaultTaskQuantum_; }
  // The quantum of tasks created from now on; existing tasks keep theirs. Zero makes their
  // taskShouldYield() answer true at once and counts no quantum violations. A negative
  // quantum throws AssertException "Quantum: <q>" and leaves the default as it was.
  void defaultTaskQuantumIs(nanoseconds q);

  // Every priority's movePersistentToTemporary() / moveTemporaryToPersistent(); the queue of a
  // priority.
  void taskRunQueuesMovePersistentToTemporary();
  void taskRunQueuesMoveTemporaryToPersistent();
  const TaskRunQueues::TaskRunQueue& taskRunQueue(TaskPriority priority) const {
    return taskRunQueues_.queue[priority.value()];
  }

  // Notes that `task` turned forced test yield on or off; calls handleTaskForceYieldInTest()
  // when the set of such tasks turns empty or non-empty.
  void taskForceYieldInTestNotify(TaskImpl* task, bool on);
  // Whether any task of this scheduler is under forced test yield.
  bool tasksForceYieldInTest() const noexcept { return !tasksForceYieldInTest_.empty(); }

  // The key of the task being run, or the null key outside a run.
  TaskKey currentTask() const noexcept { return currentTaskKey_; }

  // Appends getStats() of each registered task (only those that ran unless `includeNoRuns`);
  // answers how many were skipped.
  unsigned getTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const;
  // The same over the dead-task records.
  unsigned getDeadTaskStats(std::vector<TaskStat>* out, bool includeNoRuns) const;
  // The stats of the first registered task with this task name; a default record if none.
  TaskStat taskStatForTest(const std::string& name) const;
  // The dead-task record under this name; a default record if none.
  TaskStat deadTaskStatForTest(const std::string& name) const;
  // Merges `stat` into the record under `name`, or stores it as that record.
  void deadTaskStatsInc(const ConstStringRef& name, TaskStat stat);
  // Folds a leaving task into the dead-task records, unless it opted out.
  void updateDeadTaskStats(TaskImpl* task);

  // Every registered task, newest first; traverse with front()/next().
  const RegisteredTaskList& registeredTasks() const noexcept { return registeredTasks_; }

 protected:
  // Destroys the reset task, which does not keep its scheduler alive. A root calls it from
  // its own destructor, while the root's task hooks still stand.
  void resetStatsTaskRelease();

 private:
  friend class TaskImpl;

  // Library-internal helpers of the run path; hidden so that calls to them stay direct.
  __attribute__((visibility("hidden"))) void enqueue(TaskImpl& task);
  __attribute__((visibility("hidden"))) void taskSchedulerUnlinkTask(
      TaskRunQueues::TaskRunQueue& queue, TaskImpl& task, const TaskTimePoint& now);
  __attribute__((visibility("hidden"))) bool lowerPriorityDue(unsigned priority,
                                                              unsigned consecutive) const;
  void schedulerRunnableChanged(bool runnable, const TaskTimePoint& now);
  void clearStatsCommon();

  std::shared_ptr<TaskSchedulerHistory> history_;
  ConstStringRef schedulerName_;
  TaskSchedulerRoot* root_;
  RegisteredTaskList registeredTasks_;
  TaskRunQueues taskRunQueues_;
  TaskTimePoint lastRunRequestTime_;
  TaskTimePoint schedulerRunStartTime_{};
  nanoseconds defaultTaskQuantum_ = defaultQuantum;
  nanoseconds schedulerLatencyHighWaterMark_{0};
  std::map<TaskPriority, unsigned> tasksPerPriority_;
  std::map<TaskPriority, unsigned> deadTasksPerPriority_;
  std::unordered_map<ConstStringRef, TaskStat, ConstStringRefHasher> deadTaskStats_;
  bool schedulerHasRunnableTasks_ = false;
  TaskKey currentTaskKey_;
  std::shared_ptr<_TaskBase> currentTaskRef_;
  std::unordered_set<TaskImpl*> tasksForceYieldInTest_;
  std::shared_ptr<TaskImpl> resetStatsTask_;
  // Where the incremental reset resumes; placed only while a reset is under way.
  RegisteredTaskList::Bookmark resetStatsBookmark_;
};

// "<name>" of the scheduler for trace lines; "NULL" for a null scheduler.
std::ostream& operator<<(std::ostream& os, const TaskScheduler* scheduler);

// The top scheduler of a tree: the registry of the tree's schedulers, the history and the
// switches that act on the whole tree. Abstract: a subclass says how a run is requested
// (override requestSchedulerRun()) and calls handleSchedulerRun() when the run is due.
// TaskSchedulerRootManual lets the caller do that; the event-loop root arms a zero-delay
// timer. Create roots with std::make_shared.
class TaskSchedulerRoot : public TaskScheduler {
 public:
  // `minimumTimerDelay`: no timer task of the tree arms its timer for less.
  TaskSchedulerRoot(const std::string& name, nanoseconds minimumTimerDelay);
  ~TaskSchedulerRoot() override;

  // Hooks called as tasks and timer tasks come and go; they do nothing here.
  virtual void taskCreated(TaskImpl&) {}
  virtual void taskDestroyed(TaskImpl&) {}
  virtual void timerCreated(TimerTask&) {}
  virtual void timerDestroyed(TimerTask&) {}
  // The timer operations of timer tasks (see TimerTask.h). timerStart arms the task's timer
  // for the delay and answers true; with `restart` off it leaves an armed timer that expires
  // no later than the new delay alone and answers false. timerStop disarms; timerRemaining
  // answers the seconds left (+infinity when not armed) and timerExpiry the expiry
  // (TaskTimePoint::max() when not armed). A subclass with timers overrides all five and
  // calls timerExpired() when a timer expires; this class has none and throws
  // UnimplementedException. The event-loop and manual roots begin each with the thread check.
  virtual bool timerStart(TimerTask& timer, double seconds, bool restart);
  virtual bool timerStart(TimerTask& timer, nanoseconds delay, bool restart);
  virtual void timerStop(TimerTask& timer);
  virtual double timerRemaining(const TimerTask& timer) const;
  virtual TaskTimePoint timerExpiry(const TimerTask& timer) const;
  void handleTaskForceYieldInTest() override {}

  // Ends the process with "insert failed for" / "delete failed for" and the scheduler when
  // the scheduler is already / not registered.
  void registerScheduler(TaskScheduler* scheduler);
  void unregisterScheduler(TaskScheduler* scheduler);
  const std::set<TaskScheduler*>& registeredSchedulers() const noexcept {
    return registeredSchedulers_;
  }
  // The number of task groups in the tree.
  unsigned taskGroupCount() const;
  size_t totalRegisteredTaskCount() const;
  nanoseconds minimumTimerDelay() const noexcept { return minimumTimerDelay_; }

  // Whether the tree is suspended.
  bool suspended() const noexcept { return suspended_; }
  // While suspended, every run of every scheduler of the tree is ignored; resuming requests
  // one run.
  void suspendedIs(bool suspended);
  bool virtualTime() const noexcept { return virtualTime_; }
  void virtualTimeIs(bool on);
  uint8_t taskTestYieldRatio() const noexcept { return taskTestYieldRatio_; }
  // Every task without a ratio of its own yields on every r-th taskShouldYield() (0 = off).
  void taskTestYieldRatioIs(uint8_t r);
  bool threadSanityDisabled() const noexcept { return threadSanityDisabled_; }
  void threadSanityDisabledIs(bool disabled);
  // Re-derives the yield mode of every task of the tree.
  void taskShouldYieldModeReevaluate();

  // Ends the process when called from a thread other than the root's (see the top of file).
  void sanityCheckCurrentRunningThread() const {
    if (!threadSanityDisabled_ && !pthread_equal(pthread_self(), thread_)) [[unlikely]] {
      sanityCheckSlow();
    }
  }
  static std::string currentThreadName();
  bool mainThread() const noexcept { return mainThread_; }

  // Switches virtual time off, then runs one task.
  void handleSchedulerRun();

  // The history ring's capacity (100 unless changed) and its change.
  unsigned historyEntryCount() const noexcept { return history()->capacity(); }
  void historyEntryCountIs(unsigned capacity);
  // Drops every event.
  void clearHistory();
  // Writes the newest events first, at most `limit` of them, with absolute time stamps and
  // microseconds before the newest event. The layout does not depend on the format the caller
  // left on `os` (base, fill, adjustment, width, locale), and that format is kept.
  void printHistory(std::ostream& os, unsigned limit) const;
  void printHistoryStdErr() const;
  // Writes the history as Trace Event JSON, which ui.perfetto.dev and chrome://tracing open:
  // one track per scheduler of the tree; one complete event per task run, paired from its
  // "run start" and "run end" and carrying the task's name, priority and scheduler; an instant
  // event for every other event; times in microseconds of the history's own clock. Names are
  // matched to schedulers and priorities through the tree as it is now (see the source for
  // ambiguous and vanished names). Any bytes in names give valid UTF-8 JSON. Only reads: it
  // adds nothing to recording. Root's thread only.
  void writeTraceEvents(std::ostream& os) const;
  // The figures of printStats() as JSON, for monitoring: the per-priority summary, the
  // largest scheduler slip, and a record per live task and (when `includeDeadTasks`) per
  // dead-task record, in the report's row order, durations in integer nanoseconds and a work
  // high-water mark that was never recorded as null. Tasks that never ran are included only
  // with `includeNoRuns`; the counts left out are given. Gathers through statsSnapshotRoot().
  void writeStatsJson(std::ostream& os, bool includeNoRuns = true,
                      bool includeDeadTasks = true) const;
  // True while any scheduler of the tree is resetting its statistics.
  bool resetStatsInProgress() const override;
  // The report over the whole tree: every scheduler's live tasks (and dead records) in one
  // table each, the summary summed over the tree (queueStatsRoot()), then the history with
  // at most `historyLimit` events (none when 0).
  void printStats(std::ostream& os, bool includeNoRuns, bool hideWorkCounts, unsigned taskLimit,
                  unsigned deadTaskLimit, unsigned historyLimit) const override;
  // The tree's report to the standard error stream; by default every task (tasks that never
  // ran included), all work counts, every dead record and the whole history ring.
  void printStatsStdErr(bool includeNoRuns = true, bool hideWorkCounts = false,
                        unsigned taskLimit = statsNoLimit, unsigned deadTaskLimit = statsNoLimit,
                        unsigned historyLimit = statsNoLimit) const;
  // statsSnapshot() over the whole tree: every scheduler's records in one vector each (in the
  // order of registeredSchedulers()), queueStatsRoot() and the largest slip of the tree.
  TaskSchedulerStatsSnapshot statsSnapshotRoot(bool includeNoRuns, bool includeDeadTasks) const;
  // The sum of queueStats() over every scheduler of the tree.
  TaskSchedulerQueueStats queueStatsRoot() const;
  // A pseudo-random percentage for timer jitter and test hooks: rand_r() on the root's seed
  // divided by 21474836, so 0 to 100 (100 only for the top 48 results of rand_r()).
  unsigned randomPercent();
  unsigned randomSeed() const noexcept { return randomSeed_; }
  // Restarts the root's sequence from `seed`, so that a test sees the same jitter every run.
  void randomSeedIs(unsigned seed) noexcept { randomSeed_ = seed; }

 protected:
  // A timer of `timer` has expired: marks it disarmed and schedules the task.
  void timerExpired(TimerTask& timer);

 private:
  void sanityCheckSlow() const;
  // Records a change of virtual time or of the test yield ratio and re-derives every task's
  // yield mode.
  void yieldSwitchChanged(TaskSchedulerEventType event);

  std::set<TaskScheduler*> registeredSchedulers_;
  unsigned schedulerCount_ = 1;
  pthread_t thread_;
  pid_t pid_;
  char threadName_[16] = {};
  bool threadSanityDisabled_ = false;
  bool suspended_ = false;
  bool virtualTime_ = false;
  bool mainThread_;
  uint8_t taskTestYieldRatio_ = 0;
  nanoseconds minimumTimerDelay_;
  unsigned randomSeed_;
};

// A root driven by its caller instead of an event loop, for unit tests of tasks and for
// programs that run their own loop. Run requests are counted and remembered; runOnce() and
// runUntilIdle() perform the requested runs on the calling thread, as the event loop would,
// one task per run. Several requests before a run collapse into one, as with a zero-delay
// timer. Exceptions from a task's taskExecute() pass out of runOnce()/runUntilIdle() with the
// next run already requested, so calling them again goes on with the remaining tasks.
//
//   auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("test");
//   auto task = std::make_shared<MyTask>(root, Tarvo::TaskPriority::normal, "mine");
//   task->scheduleTask();
//   root->runUntilIdle();   // runs `task` (and whatever it schedules) to completion
//
// Timer tasks of this root run on a manual clock: it starts at the steady clock's reading at
// construction and moves only with advanceBy(), so a test of timer-driven code waits for
// nothing and sees the same sequence every time:
//
//   poll->scheduleTaskDelay(std::chrono::seconds(5));
//   root->advanceBy(std::chrono::seconds(4));   // nothing due yet
//   root->advanceBy(std::chrono::seconds(1));   // poll runs, at manualTime() + 5 s
//
// Timers due at the same instant fire in the order they were armed. The root's random seed
// starts at a fixed value, so jitter draws the same offsets every run too.
class TaskSchedulerRootManual : public TaskSchedulerRoot {
 public:
  // A root named `name`; no timer task arms for less than `minimumTimerDelay`.
  explicit TaskSchedulerRootManual(const std::string& name,
                                   nanoseconds minimumTimerDelay = nanoseconds(0));
  ~TaskSchedulerRootManual() override;

  void requestSchedulerRun() override;
  // Whether a run has been requested and not yet performed.
  bool runPending() const noexcept { return runPending_; }
  // Run requests made since construction.
  uint64_t runRequestCount() const noexcept { return runRequestCount_; }
  // Performs the pending run, if any; answers whether there was one.
  bool runOnce();
  // Performs runs while one is pending, at most `maxRuns`; answers how many. The last run
  // is the one that finds nothing left and marks the scheduler idle.
  uint64_t runUntilIdle(uint64_t maxRuns = UINT64_MAX);

  // The manual clock.
  TaskTimePoint manualTime() const noexcept { return manualTime_; }
  // The number of armed timers.
  size_t timersArmed() const noexcept { return timers_.size(); }
  // Runs what is runnable, then moves the manual clock forward by `span` (a negative span
  // counts as zero): the clock steps to each expiry due within the span in turn, the timers
  // due at that instant fire (in arming order), and what they made runnable runs until
  // idle; timers armed meanwhile that fall due within the span fire too. Ends with the clock
  // at the end of the span. Answers the number of timers fired. An exception from a task
  // passes out with the clock at the instant being processed; calling advanceBy() again
  // goes on from there. Not for use from inside a task of this root.
  uint64_t advanceBy(nanoseconds span);

  void timerCreated(TimerTask& timer) override;
  void timerDestroyed(TimerTask& timer) override;
  // The seconds form converts to nanoseconds; delays at or below zero (and NaN) expire at
  // the current manual time, delays beyond the clock's range never (their remaining time is
  // +infinity, and not even advanceBy(nanoseconds::max()) fires them).
  bool timerStart(TimerTask& timer, double seconds, bool restart) override;
  bool timerStart(TimerTask& timer, nanoseconds delay, bool restart) override;
  void timerStop(TimerTask& timer) override;
  double timerRemaining(const TimerTask& timer) const override;
  TaskTimePoint timerExpiry(const TimerTask& timer) const override;

 private:
  // Armed timers by expiry, then by arming order.
  using TimerQueue = std::map<std::pair<TaskTimePoint, uint64_t>, TimerTask*>;
  struct ManualTimer;

  static ManualTimer& record(const TimerTask& timer);
  void disarm(ManualTimer& record);

  bool runPending_ = false;
  uint64_t runRequestCount_ = 0;
  TaskTimePoint manualTime_;
  uint64_t armCount_ = 0;
  TimerQueue timers_;
};

inline TaskSchedulerRoot* _TaskBase::root() const noexcept {
  return scheduler_->root();
}

inline void _TaskBase::taskHistoryInsert(const TaskTimePoint& when,
                                         TaskSchedulerEventType type) const {
  scheduler_->history()->insertEvent(when, type, taskStatsName_, true);
}

inline void TaskSchedulerHistory::insert(const TimePoint& when, TaskSchedulerEventType type,
                                         const _TaskBase* task) {
  insertEvent(when, type, task->taskStatsName(), true);
}

inline void TaskSchedulerHistory::insert(const TimePoint& when, TaskSchedulerEventType type,
                                         const TaskScheduler* scheduler) {
  insertEvent(when, type, scheduler->schedulerName(), false);
}

}  // namespace Tarvo

// Task groups, timer tasks, the event-loop root and the per-thread roots complete the
// scheduler API.
#include "Tarvo/TaskGroup.h"
#include "Tarvo/TaskSchedulerRootTarvo.h"
#include "Tarvo/TimerTask.h"

// Descriptor tasks and the platform controls backed by tasks.
#include "Tarvo/FileDescriptorTask.h"
#include "Tarvo/TaskControls.h"
