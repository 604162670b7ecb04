// The platform layer: the library lock and thread utilities, the handler and control
// interfaces through which the library watches descriptors, arms timers and defers
// callbacks, the thread's event loop, fast-forward (virtual time) and the library clock.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>

namespace Tarvo {
namespace Platform {

// The library-wide lock. It guards process-wide state (the trace registry and trace file,
// shared tables) and is recursive, so public entry points may call each other while
// holding it. Satisfies BasicLockable.
class Loco {
 public:
  // Takes and releases the lock; recursive.
  virtual void lock() = 0;
  virtual void unlock() = 0;
  // Whether the calling thread holds the lock.
  virtual bool owns_lock() const = 0;

 protected:
  virtual ~Loco() = default;
};

// The one library lock; created on first use and never destroyed, so it stays usable
// during static destruction. Thread-safe.
Loco& loco();

// Holds the library lock for its scope; nests on one thread.
class LocoGuard {
 public:
  // Takes `l` (the library lock unless given) until destroyed.
  explicit LocoGuard(Loco& l = loco()) : loco_(&l) { loco_->lock(); }
  ~LocoGuard() { loco_->unlock(); }
  LocoGuard(const LocoGuard&) = delete;
  LocoGuard& operator=(const LocoGuard&) = delete;

 private:
  Loco* loco_;
};

// The kernel thread id of the calling thread.
pid_t gettid();
// Whether the calling thread is the process's first thread (its tid equals the pid).
bool isMainThread();
// Records isMainThread() in the calling thread's main-thread flag; done when the thread's
// event base is created or registered.
void setMainThread();
// The calling thread's main-thread flag as last recorded by setMainThread() (false before).
bool mainThreadFlag();

// The process-wide wish that per-thread singletons (such as a per-thread root scheduler) be
// used. Off until useThreadLocalSingletons() is called.
void useThreadLocalSingletons();
bool hasThreadLocalSingletons();
// Accepted and ignored; kept so that older callers still build.
void threadSafePointerIs(bool);

// The number of auxiliary threads: threads that may legitimately act on another thread's
// scheduler tree, such as a diagnostic thread that prints statistics. While it is non-zero
// the schedulers' wrong-thread check stands down. Such a thread calls auxThreadCountInc()
// when it starts and auxThreadCountDec() when it is done; both are thread-safe.
uint32_t auxThreadCount();
void auxThreadCountInc();
void auxThreadCountDec();

// ---- Handlers and controls ----
//
// A client implements a handler (what to do when a descriptor is ready, a timer expires or a
// requested callback runs), asks a factory below for a control bound to it, and drives the
// control. One object may implement several handler interfaces.
//
// Exception contract, for every control and every notification: when the notification
// throws, the control calls the matching handle*Exception() while that exception is still
// current (so the handler may inspect it with `throw;` inside a try block). If it returns
// true, the exception is swallowed and the loop goes on. If it returns false (the default),
// the exception leaves the event-loop call (doEventLoop() and its forms) unchanged; the loop
// stops after that notification, and the loop and every control stay usable, so the caller
// may simply run the loop again. A handler may destroy any control, its own included, inside
// a notification; a handler object destroyed inside its own notification must not let an
// exception through, since its handle*Exception() would then be asked on a dead object.
//
// Thread rule: a control belongs to the thread that created it. It is driven, notified and
// destroyed on that thread only; handlers need no locking.

// Told when the bound descriptor is ready.
class FdEventHandler {
 public:
  virtual ~FdEventHandler() = default;
  // `fd` is readable / writable.
  virtual void readFdEvent(int fd) = 0;
  virtual void writeFdEvent(int fd) = 0;
  // Called while an exception from readFdEvent/writeFdEvent is current; true swallows it.
  virtual bool handleFdException(int fd);
};

// Told when the timer expires.
class TimeoutHandler {
 public:
  virtual ~TimeoutHandler() = default;
  // The timer expired.
  virtual void timeout() = 0;
  // Called while an exception from timeout() is current; true swallows it.
  virtual bool handleTimeoutException();
};

// Told when a requested callback is delivered.
class CallbackHandler {
 public:
  virtual ~CallbackHandler() = default;
  // The requested callback is due.
  virtual void callback() = 0;
  // Called while an exception from callback() is current; true swallows it.
  virtual bool handleCallbackException();
};

// Watches one descriptor for readability and writability.
//
// A new control has read interest on and write interest off and no descriptor. Read interest
// is persistent: every readiness notifies until it is switched off. Write interest is
// one-shot: each setWrites(true) yields at most one writeFdEvent(), after which the client
// calls setWrites(true) again if it still has data to write; the stored flag stays on.
// Destroying the control stops all watching; no notification follows.
class FdControl {
 public:
  virtual ~FdControl() = default;
  // Switches interest on or off and stores the choice; takes effect at once when a
  // descriptor is bound, else at the next setFd().
  virtual void setReads(bool on) = 0;
  virtual void setWrites(bool on) = 0;
  // Binds the control to `fd`, puts the descriptor into non-blocking mode and arms the
  // interest switched on. The control never closes `fd`. (The libevent control ends the
  // process when `fd` is not an open descriptor.)
  virtual void setFd(int fd) = 0;
  // Stops watching and unbinds: getFd() becomes -1; the stored interest is kept.
  virtual void delFd() = 0;
  // The bound descriptor, -1 when unbound.
  virtual int getFd() const = 0;
  // Stops watching both directions now, keeping the binding and the stored choices, so that
  // a later setFd() re-arms what was chosen.
  virtual void clearEvents() = 0;
};

// A one-shot timer.
class TimerControl {
 public:
  virtual ~TimerControl() = default;
  // Arms the timer to call timeout() once after `seconds`, replacing any earlier expiry.
  // Zero, negative and NaN mean "on the next loop pass"; +infinity means never (disarms).
  virtual void setTimeout(double seconds) = 0;
  // Disarms; no timeout() follows.
  virtual void delTimeout() = 0;
  // Seconds until expiry; +infinity when not armed; 0 when the expiry has passed but the
  // notification has not yet been delivered.
  virtual double remainingTimeout() const = 0;
};

// Asks for a call from the event loop as soon as possible.
class CallbackControl {
 public:
  virtual ~CallbackControl() = default;
  // Asks for one callback() from the loop (never from inside this call). Repeated requests
  // before delivery give one call.
  virtual void requestCallback() = 0;
  // Withdraws a request not yet delivered.
  virtual void cancelCallback() = 0;
  // Whether a request is outstanding.
  virtual bool pendingCallback() const = 0;
};

// New controls bound to the calling thread's event base (created if needed) and to
// `handler`, which must not be null and must outlive the control; a null handler throws
// AssertException. The scheduler layer offers overloads that also take a scheduler, a
// priority and a name and build task-backed controls instead.
std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler);
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler);
std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler);

// ---- The thread's event loop ----
//
// Each runs the calling thread's event loop (creating its base if needed) and must not be
// called from inside one of that loop's own notifications (AssertException). An exception
// that a handler lets through leaves these calls; the loop may be run again afterwards.

// Runs until nothing is left to wait for or the loop is told to exit. With fast-forward on,
// whenever the loop would sleep until its earliest timer, virtual time is advanced to that
// timer instead, so a loop with only timers runs all of them without waiting.
void doEventLoop();
// Runs for at most `seconds` (returning earlier once nothing is left to wait for). With
// fast-forward on, virtual time is advanced by `seconds`, what is then due runs, and the
// call returns without waiting. +infinity means no limit (as doEventLoop()); negative or
// NaN spans count as 0.
void doEventLoop(double seconds);
// The form used while waiting for a condition: as doEventLoop(seconds), except that with
// fast-forward on virtual time is advanced only to the earliest timer when that comes
// sooner than `seconds`.
void doEventLoopInWaitfor(double seconds);

// ---- Fast-forward ----
//
// In fast-forward mode the loop never sleeps until a timer: it moves the thread's virtual
// time offset forward by the delay and makes every pending timer of the thread due that much
// sooner (a persistent libevent timer too, which then keeps its period); Tarvo::time()
// includes the offset. The mode is one process-wide switch that only
// the main thread may throw (AssertException from any other thread, the mode unchanged); it
// takes effect at the next loop pass of every thread. The offset is per thread and only
// grows. Meant for test processes.
void setFastForward(bool on);
bool fastForward();

// Not available in this library: each always throws AssertException. Kept because clients
// link against them.
void refCountingEnabledIs(bool on);
bool refCountingEnabled();

}  // namespace Platform

// The library clock: monotonic seconds plus the calling thread's virtual time offset.
// Thread-safe; allocates nothing.
double time();

}  // namespace Tarvo
