// The libevent implementation of the platform layer: the per-thread event base, the loop
// forms behind Platform::doEventLoop(), the libevent controls, virtual time and fast-forward.
//
// Each thread that uses the layer owns one libevent event base, created on first need (by
// leInit(), a control's construction or a loop call) or adopted with leRegisterBase(). Only
// that thread may use it. A base created by leInit() is freed when its thread exits, or, if
// controls of the thread are still alive then (held by thread-local or static objects),
// when the last of them is destroyed. A registered base stays the caller's to free.
//
// Thread rule: everything here acts on the calling thread's own base, loop and virtual time
// offset, except the fast-forward switch and the WAITFOR_DEFAULT value, which are
// process-wide and safe to read from any thread.
//
// All trace lines of this layer go to the "TarvoLibevent" trace handler. Its AssertExceptions
// are only thrown, never traced: the catcher decides whether they are worth a line.
#pragma once

#include <sys/time.h>

#include <memory>

#include "Tarvo/Platform.h"
#include "Tarvo/TaskClock.h"

struct event;
struct event_base;

namespace Tarvo {

// ---- The thread's event base ----

// Creates the calling thread's base unless it has one; installs le_debug_cb and le_fatal_cb
// as libevent's log and fatal-error callbacks and records whether this is the main thread.
// Throws RuntimeException if libevent cannot create a base.
void leInit();
// Adopts a base the caller created; the caller keeps ownership unless it later calls
// leFree(). Registering the base already held is accepted. A second, different base on the
// same thread throws AssertException and the first one stays. Exceptions that handlers let
// through come out of this library's loop calls: if the caller runs libevent's own loop on
// the base instead, that loop stops after the notification and the exception comes out of
// the thread's next doEventLoop().
void leRegisterBase(event_base* base);
// Frees the thread's base, if any (a registered one too). Throws AssertException, freeing
// nothing, while controls of the thread still use it.
void leFree();
// Whether the calling thread holds a base.
bool leInitialized();
// The calling thread's base, or null.
event_base* leBase();
// For a forked child: re-initialises the thread's base (event_reinit) so its events work in
// the child, or creates one when there is none. Throws RuntimeException if libevent fails.
void leForkReinit();

// ---- The loop ----

// The loop forms behind Platform::doEventLoop(), doEventLoop(seconds) and
// doEventLoopInWaitfor(seconds); see there.
void doLeEventLoop();
void doLeEventLoop(double seconds);
void doLeEventLoopInWaitfor(double seconds);

// The default span for waiting on a condition, from WAITFOR_DEFAULT (seconds, a decimal
// number, leading blanks allowed, trailing text ignored). Read on the first call only;
// +infinity when unset or malformed (malformed is reported once on the standard error
// stream). Passed to a timed loop, +infinity means no limit.
double waitForDefaultTimeout();

// libevent's log callback: severities debug, message, warning and error become trace lines
// "libevent: <msg>" at levels 9, 5, 1 and 0. Any other severity throws AssertException.
void le_debug_cb(int severity, const char* msg);
// libevent's fatal-error callback: throws AssertException "libevent fatal error:<err>", so the
// error unwinds out of libevent instead of ending the process there.
void le_fatal_cb(int err);

// ---- Virtual time and fast-forward ----

// The calling thread's virtual time offset in seconds (0 until the thread fast-forwards).
double leVirtualTimeOffset();
// Switches fast-forward (see Platform::setFastForward); creates the thread's base first.
// From a thread other than the main thread it throws AssertException and changes nothing.
void setLeFastForward(bool on);
bool leFastForward();
// The delay from the base's present time to its earliest pending timer, 0 when that timer
// is already due; false when no timer is pending. Throws AssertException when fast-forward
// is off.
bool fastForwardDelayToFirstTimer(timeval* delay);

// ---- The controls ----
//
// Each is bound to the base of the thread that created it and follows the contracts of its
// Platform interface, including the exception contract. Trace lines at level 9 start with
// "Timer <address>" / "Callback <address>". A null handler throws AssertException.

namespace Impl {
// Counts the calling thread's live controls, so that the thread's base outlives them. A base
// class of every libevent control: constructed before and destroyed after its events.
class LeControlCount {
 protected:
  LeControlCount();
  ~LeControlCount();
};

// A control's libevent event; freeing it deletes it from its base first.
struct LeEventFree {
  // Deletes `ev` from its base, then frees it.
  void operator()(event* ev) const;
};
// An owned libevent event.
using LeEventPtr = std::unique_ptr<event, LeEventFree>;
}  // namespace Impl

// The libevent descriptor control: one libevent event per direction.
class LibeventFdControl : public Platform::FdControl, private Impl::LeControlCount {
 public:
  // A control that calls `handler`.
  explicit LibeventFdControl(Platform::FdEventHandler* handler);
  ~LibeventFdControl() override;
  LibeventFdControl(const LibeventFdControl&) = delete;
  LibeventFdControl& operator=(const LibeventFdControl&) = delete;

  void setReads(bool on) override;
  void setWrites(bool on) override;
  // Ends the process ("flags >= 0" / "result == 0") when fcntl fails on `fd`.
  void setFd(int fd) override;
  void delFd() override;
  int getFd() const override;
  void clearEvents() override;

 private:
  static void handleFdRead(int fd, short what, void* control);
  static void handleFdWrite(int fd, short what, void* control);

  Platform::FdEventHandler* handler_;
  int fd_ = -1;
  bool reads_ = true;
  bool writes_ = false;
  Impl::LeEventPtr readEvent_;
  Impl::LeEventPtr writeEvent_;
};

// The libevent timer control.
class LibeventTimerControl : public Platform::TimerControl, private Impl::LeControlCount {
 public:
  // A control that calls `handler`.
  explicit LibeventTimerControl(Platform::TimeoutHandler* handler);
  ~LibeventTimerControl() override;
  LibeventTimerControl(const LibeventTimerControl&) = delete;
  LibeventTimerControl& operator=(const LibeventTimerControl&) = delete;

  // A non-zero delay is measured from the precise monotonic clock, so the timer never
  // expires early (libevent's own coarse clock may make it late by up to one tick, 4 ms at
  // 250 Hz).
  void setTimeout(double seconds) override;
  // setTimeout() with the delay counted from `from`, a reading of this process's task clock
  // (TaskClock::now()) taken on this thread a moment ago, which spares the control a reading
  // of its own; TaskTimePoint{} counts from now, as setTimeout() does.
  void setTimeoutFrom(double seconds, TaskTimePoint from);
  void delTimeout() override;
  // Measured against the precise monotonic clock, to the microsecond; fast-forward shortens
  // it by the advance (the virtual time offset itself is not added).
  double remainingTimeout() const override;

  // Delivers an expiry to the handler under the exception contract.
  void handler();

 protected:
  bool timerPending() const;

 private:
  static void handleTimeout(int fd, short what, void* control);

  Platform::TimeoutHandler* handler_;
  Impl::LeEventPtr timer_;
  // Added to the base and not yet delivered (pending or due): only then is there anything
  // for delTimeout() to delete.
  bool armed_ = false;
};

// A requested callback is a zero-delay timer whose expiry calls this control's own
// timeout(), which delivers callback() to the handler.
class LibeventCallbackControl : public Platform::CallbackControl,
                                private Platform::TimeoutHandler,
                                private LibeventTimerControl {
 public:
  // A control that calls `handler`.
  explicit LibeventCallbackControl(Platform::CallbackHandler* handler);

  void requestCallback() override;
  void cancelCallback() override;
  bool pendingCallback() const override;

 private:
  void timeout() override;

  Platform::CallbackHandler* handler_;
};

// The factories behind Platform::getFdControl() and friends.
std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler);
std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler);
std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(Platform::CallbackHandler* handler);

}  // namespace Tarvo
