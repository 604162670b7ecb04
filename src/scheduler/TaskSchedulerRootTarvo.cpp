#include "Tarvo/TaskSchedulerRootTarvo.h"

#include <pthread.h>

#include <atomic>
#include <cfloat>
#include <optional>
#include <string>

#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "platform/LibeventInternal.h"
#include "platform/ProcessClock.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

TaskSchedulerRootTarvo::TaskSchedulerRootTarvo(const std::string& name)
    : TaskSchedulerRoot(name, nanoseconds(0)), runTimer_(Platform::getTimerControl(this)) {}

TaskSchedulerRootTarvo::~TaskSchedulerRootTarvo() = default;

void TaskSchedulerRootTarvo::requestSchedulerRun() {
  runTimer_->setTimeout(0.0);
}

void TaskSchedulerRootTarvo::timeout() {
  try {
    handleSchedulerRun();
  } catch (...) {
    // The run may have released the last reference to this root (a task that held it let
    // go and threw), so nothing of it may be used from here on, and the timer control must
    // not ask it about the exception: hand the exception straight to the loop call, which
    // throws it once the loop has returned, as for any exception a handler lets through.
    leParkException(std::current_exception());
  }
}

// One timer task's platform timer: expiry marks the task disarmed and schedules it.
class TaskSchedulerRootTarvo::TimerNotifiee : public TimerTask::TimerRecord,
                                              public Platform::TimeoutHandler {
 public:
  TimerNotifiee(TaskSchedulerRootTarvo* root, TimerTask* timer)
      : control_(std::make_shared<LibeventTimerControl>(this)), root_(root), timer_(timer) {
    control_->delTimeout();
  }

  void timeout() override { root_->timerExpired(*timer_); }

  LibeventTimerControl& control() const noexcept { return *control_; }

 private:
  std::shared_ptr<LibeventTimerControl> control_;
  TaskSchedulerRootTarvo* root_;
  TimerTask* timer_;
};

TaskSchedulerRootTarvo::TimerNotifiee& TaskSchedulerRootTarvo::notifiee(const TimerTask& timer) {
  return *static_cast<TimerNotifiee*>(timer.timerRecord());
}

void TaskSchedulerRootTarvo::timerCreated(TimerTask& timer) {
  timer.timerRecordIs(std::make_unique<TimerNotifiee>(this, &timer));
}

void TaskSchedulerRootTarvo::timerDestroyed(TimerTask& timer) {
  timer.timerRecordIs(nullptr);
}

// The timer operations check the calling thread first: each timer control lives in the event
// base of the root's thread, which nothing else may touch.
bool TaskSchedulerRootTarvo::timerStart(TimerTask& timer, double seconds, bool restart) {
  sanityCheckCurrentRunningThread();
  LibeventTimerControl& control = notifiee(timer).control();
  if (!restart && !(seconds < control.remainingTimeout())) {
    return false;
  }
  control.setTimeoutFrom(seconds, timer.timerStartCallTime());
  return true;
}

bool TaskSchedulerRootTarvo::timerStart(TimerTask& timer, nanoseconds delay, bool restart) {
  return TaskSchedulerRootTarvo::timerStart(timer, static_cast<double>(delay.count()) / 1e9,
                                            restart);
}

void TaskSchedulerRootTarvo::timerStop(TimerTask& timer) {
  sanityCheckCurrentRunningThread();
  notifiee(timer).control().delTimeout();
}

double TaskSchedulerRootTarvo::timerRemaining(const TimerTask& timer) const {
  sanityCheckCurrentRunningThread();
  return notifiee(timer).control().remainingTimeout();
}

TaskTimePoint TaskSchedulerRootTarvo::timerExpiry(const TimerTask& timer) const {
  sanityCheckCurrentRunningThread();
  double remaining = notifiee(timer).control().remainingTimeout();
  if (remaining > DBL_MAX) {
    return TaskTimePoint::max();
  }
  return processClockNow() + nanoseconds(static_cast<int64_t>(remaining * 1e9));
}

namespace {

// The thread's root and the backtrace of where it was placed in the slot.
struct PerThreadRoot {
  std::shared_ptr<TaskSchedulerRoot> root;
  std::optional<Backtrace> placedAt;

  void place(std::shared_ptr<TaskSchedulerRoot> newRoot) {
    root = std::move(newRoot);
    placedAt.emplace(true);
  }
};

thread_local PerThreadRoot perThreadRoot;
std::atomic<PerThreadSchedulerFactory> externalFactory{nullptr};

}  // namespace

std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvoNonShared(const std::string& name) {
  return std::make_shared<TaskSchedulerRootTarvo>(name);
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvo() {
  PerThreadRoot& slot = perThreadRoot;
  if (slot.root) [[likely]] {
    return slot.root;
  }
  if (PerThreadSchedulerFactory factory = externalFactory.load()) {
    std::shared_ptr<TaskSchedulerRoot> made = factory();
    if (!made) {
      debugAndThrowAssertException(&schedulerTrace(), 0,
                                   "the per thread scheduler function returned no scheduler",
                                   "TaskScheduler", "schedulerRootTarvo", __LINE__);
    }
    slot.place(std::move(made));
  } else {
    slot.place(schedulerRootTarvoNonShared(
        "thread:" + std::to_string(static_cast<unsigned long>(pthread_self()))));
  }
  TARVO_TRACE(
      schedulerTrace(), 1,
      "per-thread root " << static_cast<const TaskScheduler*>(slot.root.get()) << " created");
  return slot.root;
}

std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvoIfExists() {
  return perThreadRoot.root;
}

void schedulerRootTarvoIs(std::shared_ptr<TaskSchedulerRoot> root) {
  PerThreadRoot& slot = perThreadRoot;
  if (root == slot.root) {
    return;
  }
  if (!root) {
    slot.root.reset();
    slot.placedAt.reset();
    return;
  }
  if (slot.root) {
    Platform::DebugStream message;
    message << "Existing per thread scheduler "
            << static_cast<const TaskScheduler*>(slot.root.get()) << " new "
            << static_cast<const TaskScheduler*>(root.get());
    debugAndThrowAssertException(&schedulerTrace(), 0, message, "TaskScheduler",
                                 "schedulerRootTarvoIs", __LINE__);
  }
  slot.place(std::move(root));
}

void createExternalPerThreadSchedulerIs(PerThreadSchedulerFactory factory) {
  auto refuseChange = [](PerThreadSchedulerFactory installed) {
    Platform::DebugStream message;
    message << "Cannot change the function, already set to "
            << reinterpret_cast<const void*>(installed);
    debugAndThrowAssertException(&schedulerTrace(), 0, message, "TaskScheduler",
                                 "createExternalPerThreadSchedulerIs", __LINE__);
  };
  PerThreadSchedulerFactory installed = externalFactory.load();
  if (installed != nullptr && installed != factory) {
    refuseChange(installed);
  }
  const PerThreadRoot& slot = perThreadRoot;
  if (slot.root) {
    Platform::DebugStream message;
    message << "Per thread scheduler is already set, create backtrace\n" << slot.placedAt->pretty();
    debugAndThrowAssertException(&schedulerTrace(), 0, message, "TaskScheduler",
                                 "createExternalPerThreadSchedulerIs", __LINE__);
  }
  // An exchange rather than a store: of two threads installing different functions at once,
  // only one succeeds.
  if (!externalFactory.compare_exchange_strong(installed, factory) && installed != factory) {
    refuseChange(installed);
  }
}

}  // namespace Tarvo
