#include <unistd.h>

#include <iostream>

#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "platform/ProcessClock.h"
#include "scheduler/SchedulerText.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

TaskSchedulerRoot::TaskSchedulerRoot(const std::string& name, nanoseconds minimumTimerDelay)
    : TaskScheduler(name, this,
                    std::make_shared<TaskSchedulerHistory>(TaskSchedulerHistory::defaultCapacity)),
      thread_(pthread_self()),
      pid_(getpid()),
      mainThread_(Platform::isMainThread()),
      minimumTimerDelay_(minimumTimerDelay),
      randomState_(reinterpret_cast<uintptr_t>(this) ^ 0x9e3779b97f4a7c15ull) {
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
double TaskSchedulerRoot::timerExpiry(const TimerTask&) const {
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
  // xorshift64*: cheap and good enough to spread test hooks.
  randomState_ ^= randomState_ >> 12;
  randomState_ ^= randomState_ << 25;
  randomState_ ^= randomState_ >> 27;
  return static_cast<unsigned>((randomState_ * 0x2545f4914f6cdd1dull) >> 32) % 100;
}

// ---- TaskSchedulerRootManual ----

TaskSchedulerRootManual::TaskSchedulerRootManual(const std::string& name,
                                                 nanoseconds minimumTimerDelay)
    : TaskSchedulerRoot(name, minimumTimerDelay) {}

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

}  // namespace Tarvo
