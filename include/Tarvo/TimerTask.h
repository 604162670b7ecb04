// Timer tasks: tasks that become runnable after a delay.
//
// A TimerTask is a task (subclass it and implement taskExecute()) with one timer of its own,
// kept by the root scheduler of its tree. Arming the timer takes the task off its run queue;
// when the timer expires the task joins its run queue like any scheduled task and runs once.
// A periodic job re-arms its timer from inside taskExecute():
//
//   class Poll : public Tarvo::TimerTask {
//    public:
//     using TimerTask::TimerTask;
//     void taskExecute() override {
//       poll();
//       scheduleTaskDelay(std::chrono::seconds(5));   // again in five seconds
//     }
//   };
//   auto poll = std::make_shared<Poll>(root, Tarvo::TaskPriority::normal, "poll");
//   poll->scheduleTaskDelay(0.5);                       // first run in half a second
//
// Delays. Every delay operation takes either seconds as a double or a std::chrono duration
// (converted to nanoseconds). Forever is +infinity or nanoseconds::max(); it disarms (and the
// lowest-delay form refuses it). An exact zero never arms a timer: the task is scheduled at
// once. Any other delay, negative ones included, arms a timer for at least the root's minimum
// timer delay (zero for the event-loop roots), so a negative delay runs the task on the next
// timer pass rather than at once.
//
//   scheduleTaskDelay(d)        arm (or re-arm, earlier or later) for d; off the run queue
//   scheduleTaskLowestDelay(d)  arm only if that makes the task run sooner: an armed timer is
//                               moved only to a strictly earlier expiry, and a task already
//                               on its run queue is left alone
//   scheduleTaskJitterUp(d, p)  arm for d plus a random 0..p percent of d (p at most 100)
//   scheduleTaskJitterDown(d, p) arm for d minus a random 0..p percent of d
//   scheduleTask()              disarm and run as soon as possible
//   stopTimerTask()             disarm and take the task off its run queue
//
// The random percentage comes from the root's generator (TaskSchedulerRoot::randomPercent());
// a root's sequence can be fixed with TaskSchedulerRoot::randomSeedIs().
//
// History: "timerStart" is recorded each time a timer is actually armed, "timerStop" when
// stopTimerTask() disarms an armed timer (not when scheduleTask(), taskRunFromTest() or the
// expiry itself disarms it). Traces go to the "TaskScheduler" handler at level 8 (arming)
// and 9 (stopping, jitter).
//
// Failures end the process with a message naming the function (these are programming
// errors an agent cannot recover from):
//   jitterOffset               "maxJitterPercentage: <p> > 100" (p written as a character)
//   jitterOffset               "offset( <o> ) > delayIntoFuture( <d> )" (a negative delay
//                              with jitter, or NaN seconds)
//   _scheduleTaskLowestDelay   "delayIntoFuture: <d>" for a forever delay
//   scheduleTaskDelayedPrivate "delayIntoFuture: nan" for a NaN delay in seconds: a NaN is
//                              always an arithmetic fault of the caller, and no expiry
//                              (at once, never, or anything between) would be a safe guess
//   scheduleTaskDelayedPrivate "Task: <task>" when the root and the task disagree on
//                              whether the timer is armed
//
// Threads: a timer task belongs to the thread of its root like every task; every operation
// begins with the root's thread check. Nothing here locks; on the event-loop root arming,
// re-arming and stopping allocate nothing (the manual root allocates when it arms).
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

// A task with a timer of its own; see the top of this file.
class TimerTask : public TaskImpl {
 public:
  // Delays in nanoseconds (nanoseconds::max() is forever).
  using nanoseconds = std::chrono::nanoseconds;

  // What a root keeps for one timer task (the event-loop root: a platform timer control).
  // Attached by the root's timerCreated(), released by its timerDestroyed() or with the
  // task.
  class TimerRecord {
   public:
    virtual ~TimerRecord() = default;
  };

  // Registers the task and asks the root for its timer (timerCreated()); if that throws,
  // nothing is left registered and the exception passes on.
  TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
            const std::string& name);
  // Takes a shared reference from the scheduler first; throws std::bad_weak_ptr, building
  // nothing, when the scheduler is not owned by a std::shared_ptr.
  TimerTask(TaskScheduler* scheduler, TaskPriority priority, const std::string& name);
  // Stops the timer (as stopTimerTask()), then releases the root's record. Nothing fires
  // afterwards.
  ~TimerTask() override;

  // True while the task is on its run queue or its timer is armed.
  bool taskScheduled() const override;
  // Disarms an armed timer and schedules the task at once.
  void scheduleTask() override;
  // Disarms an armed timer and runs the task now (see TaskImpl::taskRunFromTest()).
  void taskRunFromTest() override;
  // The task's status with taskTimer set and taskTimerRunning telling whether it is armed.
  TaskStat::TaskStatus taskStatus() const override;

  // The delay operations of the table at the top of this file, each in seconds and in
  // nanoseconds.
  void scheduleTaskDelay(double delayIntoFuture);
  void scheduleTaskDelay(nanoseconds delayIntoFuture);
  void scheduleTaskLowestDelay(double delayIntoFuture);
  void scheduleTaskLowestDelay(nanoseconds delayIntoFuture);
  void scheduleTaskJitterUp(double delayIntoFuture, unsigned char maxJitterPercentage);
  void scheduleTaskJitterUp(nanoseconds delayIntoFuture, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(double delayIntoFuture, unsigned char maxJitterPercentage);
  void scheduleTaskJitterDown(nanoseconds delayIntoFuture, unsigned char maxJitterPercentage);
  // Disarms the timer and takes the task off its run queue.
  void stopTimerTask();

  // Whether the timer is armed.
  bool timerRunning() const noexcept { return timerRunning_; }
  // Seconds until the timer expires; +infinity when it is not armed.
  double timerRemaining() const;
  // When the task will next become runnable: now when it is on its run queue, the timer's
  // expiry when armed, TaskTimePoint::max() otherwise.
  TaskTimePoint currentExpirationTime() const;
  // The root's expiry of the timer alone (TaskTimePoint::max() when not armed), without
  // looking at the run queue.
  TaskTimePoint currentExpirationTimeRaw() const;

  // For roots: while the root's timerStart() runs for a scheduling call of this task, the
  // time stamp that call took (TaskClock), from which the delay counts; TaskTimePoint{} at any
  // other time, as when a root's timerStart() is called directly.
  TaskTimePoint timerStartCallTime() const noexcept { return timerStartCallTime_; }

  // For roots: the record attached to this task.
  TimerRecord* timerRecord() const noexcept { return timerRecord_.get(); }
  void timerRecordIs(std::unique_ptr<TimerRecord> record) noexcept {
    timerRecord_ = std::move(record);
  }

 private:
  friend class TaskSchedulerRoot;

  template <typename Delay>
  void scheduleTaskDelayedPrivate(Delay delayIntoFuture, bool restart);
  template <typename Delay>
  void _scheduleTaskLowestDelay(Delay delayIntoFuture);
  template <typename Delay>
  void _scheduleTaskJitterUp(Delay delayIntoFuture, unsigned char maxJitterPercentage);
  template <typename Delay>
  void _scheduleTaskJitterDown(Delay delayIntoFuture, unsigned char maxJitterPercentage);
  template <typename Delay>
  Delay jitterOffset(Delay delayIntoFuture, unsigned char maxJitterPercentage) const;
  void doStopTimer();

  bool timerRunning_ = false;
  TaskTimePoint timerStartCallTime_{};
  std::unique_ptr<TimerRecord> timerRecord_;
};

}  // namespace Tarvo
