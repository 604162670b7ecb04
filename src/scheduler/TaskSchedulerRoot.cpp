#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "platform/ProcessClock.h"
#include "scheduler/SchedulerText.h"
#include "scheduler/SchedulerTrace.h"
#include "util/WholeUnits.h"

namespace Tarvo {

TaskSchedulerRoot::TaskSchedulerRoot(const std::string& name, nanoseconds minimumTimerDelay)
    : TaskScheduler(name, this,
                    std::make_shared<TaskSchedulerHistory>(TaskSchedulerHistory::defaultCapacity)),
      thread_(pthread_self()),
      pid_(getpid()),
      mainThread_(Platform::isMainThread()),
      minimumTimerDelay_(minimumTimerDelay),
      randomSeed_(static_cast<unsigned>(processClockNow().time_since_epoch().count() ^
                                        reinterpret_cast<uintptr_t>(this))) {
  if (pthread_getname_np(thread_, threadName_, sizeof threadName_) != 0) {
    threadName_[0] = '\0';
  }
  registerScheduler(this);
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
  resetStatsTaskRelease();
  registeredSchedulers_.erase(this);
}

void TaskSchedulerRoot::registerScheduler(TaskScheduler* scheduler) {
  sanityCheckCurrentRunningThread();
  if (!registeredSchedulers_.insert(scheduler).second) {
    fatal(concat("insert failed for ", scheduler));
  }
  if (scheduler != this) {
    ++schedulerCount_;
  }
}

void TaskSchedulerRoot::unregisterScheduler(TaskScheduler* scheduler) {
  sanityCheckCurrentRunningThread();
  if (registeredSchedulers_.erase(scheduler) != 1) {
    fatal(concat("delete failed for ", scheduler));
  }
  if (scheduler != this) {
    --schedulerCount_;
  }
}

unsigned TaskSchedulerRoot::taskGroupCount() const {
  check(schedulerCount_ != 0, "schedulerCount_ != 0");
  return schedulerCount_ - 1;
}

size_t TaskSchedulerRoot::totalRegisteredTaskCount() const {
  size_t n = 0;
  for (const TaskScheduler* s : registeredSchedulers_) {
    n += s->registeredTaskCount();
  }
  return n;
}

std::string TaskSchedulerRoot::currentThreadName() {
  char name[16] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) {
    return "";
  }
  return name;
}

void TaskSchedulerRoot::sanityCheckSlow() const {
  if (Platform::auxThreadCount() != 0 || getpid() != pid_) {
    return;
  }
  fatal(concat("Executing in wrong thread ", static_cast<unsigned long>(pthread_self()), "(",
               currentThreadName(), ") pid ", getpid(), " scheduler belongs to thread ",
               static_cast<unsigned long>(thread_), "(", threadName_, ") pid ", pid_));
}

void TaskSchedulerRoot::threadSanityDisabledIs(bool disabled) {
  if (disabled == threadSanityDisabled_) {
    return;
  }
  TARVO_TRACE(schedulerTrace(), 1,
              static_cast<const TaskScheduler*>(this)
                  << " " << (disabled ? "dis" : "en") << "able thread sanity checking");
  threadSanityDisabled_ = disabled;
}

void TaskSchedulerRoot::suspendedIs(bool suspended) {
  if (suspended == suspended_) {
    return;
  }
  suspended_ = suspended;
  TaskTimePoint now = processClockNow();
  if (suspended) {
    history()->insert(now, TaskSchedulerEventType::schedulerSuspended, this);
  } else {
    history()->insert(now, TaskSchedulerEventType::schedulerUnsuspended, this);
    requestSchedulerRunAndRecord(now);
  }
}

void TaskSchedulerRoot::yieldSwitchChanged(TaskSchedulerEventType event) {
  history()->insert(processClockNow(), event, this);
  taskShouldYieldModeReevaluate();
}

void TaskSchedulerRoot::virtualTimeIs(bool on) {
  if (on == virtualTime_) {
    return;
  }
  virtualTime_ = on;
  yieldSwitchChanged(on ? TaskSchedulerEventType::schedulerVirtualTimeOn
                        : TaskSchedulerEventType::schedulerVirtualTimeOff);
}

void TaskSchedulerRoot::taskTestYieldRatioIs(uint8_t r) {
  if (r == taskTestYieldRatio_) {
    return;
  }
  taskTestYieldRatio_ = r;
  yieldSwitchChanged(r ? TaskSchedulerEventType::schedulerTestYieldRatioOn
                       : TaskSchedulerEventType::schedulerTestYieldRatioOff);
}

void TaskSchedulerRoot::taskShouldYieldModeReevaluate() {
  for (TaskScheduler* s : registeredSchedulers_) {
    const RegisteredTaskList& tasks = s->registeredTasks();
    for (TaskImpl* t = tasks.front(); t; t = tasks.next(*t)) {
      t->taskShouldYieldModeReevaluate();
    }
  }
}

void TaskSchedulerRoot::handleSchedulerRun() {
  if (virtualTime_) {
    virtualTimeIs(false);
  }
  TaskScheduler::handleSchedulerRun();
}

namespace {
[[noreturn]] void noTimers(const char* operation) {
  UnimplementedException::throwException(std::string("TaskSchedulerRoot::") + operation +
                                         "(): this root has no timers");
}
}  // namespace

bool TaskSchedulerRoot::timerStart(TimerTask&, double, bool) {
  noTimers("timerStart");
}
bool TaskSchedulerRoot::timerStart(TimerTask&, nanoseconds, bool) {
  noTimers("timerStart");
}
void TaskSchedulerRoot::timerStop(TimerTask&) {
  noTimers("timerStop");
}
double TaskSchedulerRoot::timerRemaining(const TimerTask&) const {
  noTimers("timerRemaining");
}
TaskTimePoint TaskSchedulerRoot::timerExpiry(const TimerTask&) const {
  noTimers("timerExpiry");
}

void TaskSchedulerRoot::historyEntryCountIs(unsigned capacity) {
  history()->capacityIs(capacity);
}

void TaskSchedulerRoot::clearHistory() {
  history()->clear();
  TARVO_TRACE(schedulerTrace(), 1, static_cast<const TaskScheduler*>(this) << " history cleared");
}

void TaskSchedulerRoot::printHistory(std::ostream& os, unsigned limit) const {
  history()->print(os, limit);
}

void TaskSchedulerRoot::printHistoryStdErr() const {
  printHistory(std::cerr, TaskSchedulerHistory::noLimit);
}

unsigned TaskSchedulerRoot::randomPercent() {
  return static_cast<unsigned>(rand_r(&randomSeed_)) / 21474836u;
}

// ---- TaskSchedulerRootManual ----

// The manual root's record of a timer task: where it sits in the queue of armed timers.
struct TaskSchedulerRootManual::ManualTimer : TimerTask::TimerRecord {
  std::optional<TimerQueue::iterator> armed;
};

TaskSchedulerRootManual::TaskSchedulerRootManual(const std::string& name,
                                                 nanoseconds minimumTimerDelay)
    : TaskSchedulerRoot(name, minimumTimerDelay), manualTime_(processClockNow()) {
  randomSeedIs(1);
}

TaskSchedulerRootManual::~TaskSchedulerRootManual() = default;

void TaskSchedulerRootManual::requestSchedulerRun() {
  ++runRequestCount_;
  runPending_ = true;
}

bool TaskSchedulerRootManual::runOnce() {
  if (!runPending_) {
    return false;
  }
  runPending_ = false;
  handleSchedulerRun();
  return true;
}

uint64_t TaskSchedulerRootManual::runUntilIdle(uint64_t maxRuns) {
  uint64_t runs = 0;
  while (runs < maxRuns && runOnce()) {
    ++runs;
  }
  return runs;
}

TaskSchedulerRootManual::ManualTimer& TaskSchedulerRootManual::record(const TimerTask& timer) {
  return *static_cast<ManualTimer*>(timer.timerRecord());
}

void TaskSchedulerRootManual::disarm(ManualTimer& record) {
  if (record.armed) {
    timers_.erase(*record.armed);
    record.armed.reset();
  }
}

void TaskSchedulerRootManual::timerCreated(TimerTask& timer) {
  timer.timerRecordIs(std::make_unique<ManualTimer>());
}

void TaskSchedulerRootManual::timerDestroyed(TimerTask& timer) {
  disarm(record(timer));
  timer.timerRecordIs(nullptr);
}

bool TaskSchedulerRootManual::timerStart(TimerTask& timer, double seconds, bool restart) {
  // The largest double below 2^63: a span whose nanoseconds reach it does not fit the clock.
  constexpr double kClockLimitNs = 9223372036854774784.0;
  nanoseconds delay(0);
  if (seconds * 1e9 >= kClockLimitNs) {
    delay = nanoseconds::max();
  } else if (seconds > 0) {
    delay = nanoseconds(Util::Impl::wholeUnits(seconds, 1e9));
  }
  return timerStart(timer, delay, restart);
}

bool TaskSchedulerRootManual::timerStart(TimerTask& timer, nanoseconds delay, bool restart) {
  sanityCheckCurrentRunningThread();
  const nanoseconds room = TaskTimePoint::max() - manualTime_;
  TaskTimePoint expiry = delay <= nanoseconds(0) ? manualTime_
                         : delay >= room         ? TaskTimePoint::max()
                                                 : manualTime_ + delay;
  ManualTimer& rec = record(timer);
  if (!restart && rec.armed && (*rec.armed)->first.first <= expiry) {
    return false;
  }
  disarm(rec);
  rec.armed = timers_.emplace(std::make_pair(expiry, armCount_++), &timer).first;
  return true;
}

void TaskSchedulerRootManual::timerStop(TimerTask& timer) {
  sanityCheckCurrentRunningThread();
  disarm(record(timer));
}

double TaskSchedulerRootManual::timerRemaining(const TimerTask& timer) const {
  sanityCheckCurrentRunningThread();
  const ManualTimer& rec = record(timer);
  if (!rec.armed || (*rec.armed)->first.first == TaskTimePoint::max()) {
    return HUGE_VAL;
  }
  return std::chrono::duration<double>((*rec.armed)->first.first - manualTime_).count();
}

TaskTimePoint TaskSchedulerRootManual::timerExpiry(const TimerTask& timer) const {
  sanityCheckCurrentRunningThread();
  const ManualTimer& rec = record(timer);
  return rec.armed ? (*rec.armed)->first.first : TaskTimePoint::max();
}

uint64_t TaskSchedulerRootManual::advanceBy(nanoseconds span) {
  runUntilIdle();
  const nanoseconds room = TaskTimePoint::max() - manualTime_;
  const TaskTimePoint end = span <= nanoseconds(0) ? manualTime_
                            : span >= room         ? TaskTimePoint::max()
                                                   : manualTime_ + span;
  uint64_t fired = 0;
  // An expiry of TaskTimePoint::max() stands for a delay beyond the clock's range: never.
  while (!timers_.empty() && timers_.begin()->first.first <= end &&
         timers_.begin()->first.first != TaskTimePoint::max()) {
    const TaskTimePoint instant = timers_.begin()->first.first;
    manualTime_ = instant;
    // Every timer due at this instant fires before anything runs, as in one pass of an
    // event loop; a timer armed by a run at this same instant fires in the next round.
    while (!timers_.empty() && timers_.begin()->first.first == instant) {
      TimerTask* timer = timers_.begin()->second;
      disarm(record(*timer));
      ++fired;
      timerExpired(*timer);
    }
    runUntilIdle();
  }
  manualTime_ = end;
  return fired;
}

}  // namespace Tarvo
