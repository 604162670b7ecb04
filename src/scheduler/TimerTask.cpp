#include "Tarvo/TimerTask.h"

#include <cfloat>
#include <cmath>
#include <type_traits>

#include "Tarvo/Exception.h"
#include "platform/ProcessClock.h"
#include "scheduler/SchedulerText.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

namespace {

template <typename Delay>
bool isForever(Delay delay) {
  if constexpr (std::is_same_v<Delay, double>) {
    return delay > DBL_MAX;
  } else {
    return delay == Delay::max();
  }
}

template <typename Delay>
bool isZero(Delay delay) {
  return delay == Delay(0);
}

// The larger of `delay` and the root's minimum timer delay.
template <typename Delay>
Delay clampToMinimum(Delay delay, const TaskSchedulerRoot& root) {
  const std::chrono::nanoseconds minimum = root.minimumTimerDelay();
  if constexpr (std::is_same_v<Delay, double>) {
    // Most roots have no minimum: skip the conversion for them.
    if (delay < 0 || minimum.count() != 0) {
      double seconds = static_cast<double>(minimum.count()) / 1e9;
      return delay < seconds ? seconds : delay;
    }
    return delay;
  } else {
    return delay < minimum ? minimum : delay;
  }
}

}  // namespace

TimerTask::TimerTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     const std::string& name)
    : TaskImpl(std::move(scheduler), priority, name) {
  root()->timerCreated(*this);
}

TimerTask::TimerTask(TaskScheduler* scheduler, TaskPriority priority, const std::string& name)
    : TimerTask(scheduler ? scheduler->shared_from_this() : std::shared_ptr<TaskScheduler>(),
                priority, name) {}

TimerTask::~TimerTask() {
  stopTimerTask();
  root()->timerDestroyed(*this);
  timerRecord_.reset();
}

bool TimerTask::taskScheduled() const {
  root()->sanityCheckCurrentRunningThread();
  return taskRunQueueLink_.isLinked() || timerRunning_;
}

void TimerTask::scheduleTask() {
  doStopTimer();
  TaskImpl::scheduleTask();
}

void TimerTask::taskRunFromTest() {
  doStopTimer();
  TaskImpl::taskRunFromTest();
}

TaskStat::TaskStatus TimerTask::taskStatus() const {
  TaskStat::TaskStatus status = TaskImpl::taskStatus();
  status.taskTimerIs(true);
  status.taskTimerRunningIs(timerRunning_);
  return status;
}

void TimerTask::doStopTimer() {
  if (timerRunning_) {
    timerRunning_ = false;
    root()->timerStop(*this);
  }
}

void TimerTask::stopTimerTask() {
  root()->sanityCheckCurrentRunningThread();
  TaskTimePoint now = processClockNow();
  if (!timerRunning_) {
    TARVO_TRACE(schedulerTrace(), 9, "Timer stopped " << this << ", was not running");
  } else {
    TARVO_TRACE(schedulerTrace(), 9, "Timer stopped " << this << ", was running");
    taskHistoryInsert(now, TaskSchedulerEventType::timerStop);
    doStopTimer();
  }
  unscheduleTaskPrivate(now);
  taskBusyIs(taskRunQueueLink_.isLinked() || timerRunning_, now);
}

template <typename Delay>
void TimerTask::scheduleTaskDelayedPrivate(Delay delayIntoFuture, bool restart) {
  if constexpr (std::is_same_v<Delay, double>) {
    if (std::isnan(delayIntoFuture)) [[unlikely]] {
      fatal(concat("delayIntoFuture: ", delayIntoFuture));
    }
  }
  if (isZero(delayIntoFuture)) {
    TimerTask::scheduleTask();
    return;
  }
  TaskTimePoint now = processClockNow();
  if (restart) {
    if (taskRunQueueLink_.isLinked()) {
      unscheduleTaskPrivate(now);
    }
  } else if (taskRunQueueLink_.isLinked()) {
    TARVO_TRACE(schedulerTrace(), 8, "Already on runQueue " << this);
    return;
  }
  TaskSchedulerRoot* r = root();
  delayIntoFuture = clampToMinimum(delayIntoFuture, *r);
  bool started;
  {
    // The call's time stamp is lent to the root for the one call, and taken back however the
    // call ends.
    struct Lend {
      TaskTimePoint& stamp;
      ~Lend() { stamp = TaskTimePoint{}; }
    } lend{timerStartCallTime_ = now};
    started = r->timerStart(*this, delayIntoFuture, restart);
  }
  if (!started) {
    TARVO_TRACE(schedulerTrace(), 8,
                "Timer already running " << this << " expire "
                                         << DisplayTaskTimeStamp{r->timerExpiry(*this)});
    if (timerRunning_) {
      return;
    }
    fatal(concat("Task: ", this));
  }
  timerRunning_ = true;
  TARVO_TRACE(schedulerTrace(), 8, "Timer started " << this << " delay " << delayIntoFuture);
  taskHistoryInsert(now, TaskSchedulerEventType::timerStart);
  taskBusyIs(true, now);
}

void TimerTask::scheduleTaskDelay(double delayIntoFuture) {
  root()->sanityCheckCurrentRunningThread();
  if (isForever(delayIntoFuture)) {
    stopTimerTask();
    return;
  }
  scheduleTaskDelayedPrivate(delayIntoFuture, true);
}

void TimerTask::scheduleTaskDelay(nanoseconds delayIntoFuture) {
  root()->sanityCheckCurrentRunningThread();
  if (isForever(delayIntoFuture)) {
    stopTimerTask();
    return;
  }
  scheduleTaskDelayedPrivate(delayIntoFuture, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskLowestDelay(Delay delayIntoFuture) {
  root()->sanityCheckCurrentRunningThread();
  if (isForever(delayIntoFuture)) {
    fatal(concat("delayIntoFuture: ", delayIntoFuture));
  }
  scheduleTaskDelayedPrivate(delayIntoFuture, false);
}

void TimerTask::scheduleTaskLowestDelay(double delayIntoFuture) {
  _scheduleTaskLowestDelay(delayIntoFuture);
}

void TimerTask::scheduleTaskLowestDelay(nanoseconds delayIntoFuture) {
  _scheduleTaskLowestDelay(delayIntoFuture);
}

template <typename Delay>
Delay TimerTask::jitterOffset(Delay delayIntoFuture, unsigned char maxJitterPercentage) const {
  if (maxJitterPercentage > 100) {
    fatal(concat("maxJitterPercentage: ", maxJitterPercentage, " > 100"));
  }
  unsigned r = root()->randomPercent();
  Delay offset;
  if constexpr (std::is_same_v<Delay, double>) {
    offset = r * (maxJitterPercentage * delayIntoFuture) / 10000.0;
    if (!(offset <= delayIntoFuture)) {
      fatal(concat("offset( ", offset, " ) > delayIntoFuture( ", delayIntoFuture, " )"));
    }
  } else {
    // The product is taken in 128 bits: in 64 bits it would overflow for delays beyond
    // about ten days. The quotient is at most the delay, so it fits again.
    __int128 product = static_cast<__int128>(maxJitterPercentage) * delayIntoFuture.count() * r;
    offset = Delay(static_cast<int64_t>(product / 10000));
    if (offset > delayIntoFuture) {
      fatal(concat("offset( ", offset, " ) > delayIntoFuture( ", delayIntoFuture, " )"));
    }
  }
  return offset;
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterUp(Delay delayIntoFuture, unsigned char maxJitterPercentage) {
  root()->sanityCheckCurrentRunningThread();
  if (isForever(delayIntoFuture)) {
    stopTimerTask();
    return;
  }
  Delay offset = jitterOffset(delayIntoFuture, maxJitterPercentage);
  // Saturates rather than wrapping, so a huge finite delay plus its jitter stays huge.
  Delay sum;
  if constexpr (std::is_same_v<Delay, double>) {
    sum = delayIntoFuture + offset;
  } else {
    sum = delayIntoFuture > Delay::max() - offset ? Delay::max() - Delay(1)
                                                  : delayIntoFuture + offset;
  }
  TARVO_TRACE(
      schedulerTrace(), 9,
      "Timer jitterUp " << this << " delay " << delayIntoFuture << " + " << offset << " = " << sum);
  scheduleTaskDelayedPrivate(sum, true);
}

template <typename Delay>
void TimerTask::_scheduleTaskJitterDown(Delay delayIntoFuture, unsigned char maxJitterPercentage) {
  root()->sanityCheckCurrentRunningThread();
  if (isForever(delayIntoFuture)) {
    stopTimerTask();
    return;
  }
  Delay offset = jitterOffset(delayIntoFuture, maxJitterPercentage);
  Delay difference = delayIntoFuture - offset;
  TARVO_TRACE(schedulerTrace(), 9,
              "Timer jitterDown " << this << " delay " << delayIntoFuture << " - " << offset
                                  << " = " << difference);
  scheduleTaskDelayedPrivate(difference, true);
}

void TimerTask::scheduleTaskJitterUp(double delayIntoFuture, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(delayIntoFuture, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterUp(nanoseconds delayIntoFuture,
                                     unsigned char maxJitterPercentage) {
  _scheduleTaskJitterUp(delayIntoFuture, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(double delayIntoFuture, unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(delayIntoFuture, maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(nanoseconds delayIntoFuture,
                                       unsigned char maxJitterPercentage) {
  _scheduleTaskJitterDown(delayIntoFuture, maxJitterPercentage);
}

double TimerTask::timerRemaining() const {
  return root()->timerRemaining(*this);
}

TaskTimePoint TimerTask::currentExpirationTime() const {
  root()->sanityCheckCurrentRunningThread();
  if (taskRunQueueLink_.isLinked()) {
    return processClockNow();
  }
  if (!timerRunning_) {
    return TaskTimePoint::max();
  }
  return root()->timerExpiry(*this);
}

TaskTimePoint TimerTask::currentExpirationTimeRaw() const {
  return root()->timerExpiry(*this);
}

// ---- The root's side ----

void TaskSchedulerRoot::timerExpired(TimerTask& timer) {
  timer.timerRunning_ = false;
  timer.TaskImpl::scheduleTask();
}

}  // namespace Tarvo
