// The scheduler root bound to the thread's event loop, and the per-thread roots.
//
// TaskSchedulerRootTarvo turns run requests into its own platform timer armed with a zero
// delay; the event loop fires it and the root runs one task. Requests made before the timer
// fires collapse into one run, so every task returns to the event loop before the next one
// runs and tasks interleave fairly with descriptor and timer events.
//
//   auto root = Tarvo::schedulerRootTarvo();               // this thread's root
//   auto task = std::make_shared<MyTask>(root, Tarvo::TaskPriority::normal, "work");
//   task->scheduleTask();
//   Tarvo::Platform::doEventLoop();                         // runs until nothing is left
//
// A task that throws from taskExecute() makes the event-loop call throw that exception; the
// next run is already requested, so the next loop call goes on with the remaining tasks.
//
// Timer tasks: each timer task of the tree gets a platform timer control of its own on the
// thread's event base, made when the task is created and released when it is destroyed. When
// it expires the task is marked disarmed and joins its run queue. Being ordinary event-base
// timers, they take part in fast-forward: with Platform::setFastForward(true) a task armed
// for an hour runs on the next loop pass, with Tarvo::time() an hour later.
//
// Threads: a root and its whole tree belong to the thread that created it and run on that
// thread's event loop; drop the last reference to a root on that thread too (its run timer
// lives in that thread's event base). Each thread has at most one per-thread root, released
// when the thread exits. In a forked child the
// library re-initialises the forking thread's event base and the wrong-thread check stands
// down, so the child can keep scheduling on the root it inherited.
#pragma once

#include <memory>
#include <string>

#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

// The root driven by the thread's event loop; see the top of this file.
class TaskSchedulerRootTarvo : public TaskSchedulerRoot, public Platform::TimeoutHandler {
 public:
  // Creates the root and its run timer on the calling thread's event base.
  explicit TaskSchedulerRootTarvo(const std::string& name);
  ~TaskSchedulerRootTarvo() override;

  // Arms the run timer with a zero delay (re-arming an armed one changes nothing visible).
  void requestSchedulerRun() override;
  // The run timer fired: one scheduler run.
  void timeout() override;

  void timerCreated(TimerTask& timer) override;
  void timerDestroyed(TimerTask& timer) override;
  // The seconds form hands the delay to the timer control as it is, counted from the task's
  // scheduling call (TimerTask::timerStartCallTime()) when the call comes from one, else from
  // now; the nanosecond form converts it to seconds first.
  bool timerStart(TimerTask& timer, double seconds, bool restart) override;
  bool timerStart(TimerTask& timer, nanoseconds delay, bool restart) override;
  void timerStop(TimerTask& timer) override;
  double timerRemaining(const TimerTask& timer) const override;
  // The steady clock now plus the control's remaining time (which libevent keeps to the
  // microsecond).
  TaskTimePoint timerExpiry(const TimerTask& timer) const override;

 private:
  class TimerNotifiee;

  static TimerNotifiee& notifiee(const TimerTask& timer);

  std::shared_ptr<Platform::TimerControl> runTimer_;
};

// The calling thread's root, created on first use: by the function installed with
// createExternalPerThreadSchedulerIs() if there is one, otherwise as a TaskSchedulerRootTarvo
// named "thread:<pthread_self() in decimal>". The root lives as long as the thread (or the
// last reference to it). Every root placed in the slot remembers where that happened, for
// the refusal messages below. An installed function that returns null throws AssertException
// and leaves the slot empty.
std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvo();

// A new event-loop root that is not placed in the thread's slot.
std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvoNonShared(const std::string& name);

// Installs `root` as the calling thread's root. Installing the root already there changes
// nothing; null empties the slot (the root lives on while referenced elsewhere). Replacing
// a different root throws AssertException "Existing per thread scheduler <old> new <new>"
// and keeps the old one.
void schedulerRootTarvoIs(std::shared_ptr<TaskSchedulerRoot> root);

// The calling thread's root if it has one, without creating it.
std::shared_ptr<TaskSchedulerRoot> schedulerRootTarvoIfExists();

// Makes the root of the calling thread.
using PerThreadSchedulerFactory = std::shared_ptr<TaskSchedulerRoot> (*)();

// Installs, process-wide, the function that creates per-thread roots from now on. Throws
// AssertException when a different function is installed already ("Cannot change the
// function, already set to <address>"), or when the calling thread already has a root
// ("Per thread scheduler is already set, create backtrace" followed by where it was made).
// Installing the function already installed is accepted.
void createExternalPerThreadSchedulerIs(PerThreadSchedulerFactory factory);

}  // namespace Tarvo
