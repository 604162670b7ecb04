// The libevent implementations of the three platform controls.
#include <event2/event.h>
#include <event2/event_struct.h>
#include <fcntl.h>
#include <sys/time.h>
#include <time.h>

#include <cmath>
#include <exception>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "platform/LibeventInternal.h"
#include "platform/ProcessClock.h"

namespace Tarvo {
namespace {

const char* const kSource = "LibeventFactory";

// This file's view of the "TarvoLibevent" handler, obtained when the library is loaded (no
// control exists before that), so that the timer paths test its mask without a call.
Platform::DebugHandler* const traceHandler = leDebugHandler();

void requireHandler(const void* handler, const char* function, int line) {
  if (handler == nullptr) {
    debugAndThrowAssertException(nullptr, 0, "a control needs a handler", kSource, function, line);
  }
}

event* newEvent(event_callback_fn callback, void* control) {
  event* ev = event_new(leBaseOrInit(), -1, 0, callback, control);
  if (ev == nullptr) {
    RuntimeException::throwException("event_new failed");
  }
  return ev;
}

void addEvent(event* ev, const timeval* timeout) {
  if (event_add(ev, timeout) != 0) {
    RuntimeException::throwException("event_add failed");
  }
}

constexpr int64_t kMicrosPerSecond = 1'000'000;

int64_t toMicros(const timeval& tv) {
  return static_cast<int64_t>(tv.tv_sec) * kMicrosPerSecond + tv.tv_usec;
}

timeval fromMicros(int64_t us) {
  return {static_cast<time_t>(us / kMicrosPerSecond),
          static_cast<suseconds_t>(us % kMicrosPerSecond)};
}

// The monotonic clock in microseconds, through the scheduler's cycle-counter reading, which is
// on the same scale and costs a fraction of a clock_gettime() call.
int64_t monotonicNowMicros() {
  return processClock.nowNs() / 1000;
}

// libevent's "now", in microseconds, as this thread's base last stamped a timer with it (see
// addTimer()).
__attribute__((tls_model("initial-exec"))) thread_local int64_t baseNowSeen = 0;

// Arms `ev` to expire `delayUs` microseconds after `now` (microseconds on the monotonic
// clock). libevent stamps an expiry from its own monotonic clock: the kernel's coarse clock,
// which moves in ticks (4 ms at 250 Hz), read once per loop pass inside the loop. That stamp
// can lie a tick or a whole pass in the past, so the timer would expire early and
// remainingTimeout() would be short by as much. The wanted expiry is therefore taken from the
// precise clock and handed to libevent as a delay from libevent's own "now". That "now" moves
// only at a tick or a loop pass, so the one seen at the last add is usually still right and
// one add suffices; when the stamp shows otherwise, the "now" it reveals is kept and the timer
// added again. The arithmetic is on plain 64-bit microseconds: timeval pairs invite the
// compiler to 16-byte loads of pairs just stored as two scalars, which stall.
void addTimer(event* ev, int64_t delayUs, int64_t now) {
  const int64_t wanted = now + delayUs;
  int64_t fromBaseNowUs = baseNowSeen < wanted ? wanted - baseNowSeen : delayUs;
  timeval fromBaseNow = fromMicros(fromBaseNowUs);
  addEvent(ev, &fromBaseNow);
  const int64_t stamped = toMicros(ev->ev_timeout);
  if (stamped != wanted) {
    baseNowSeen = stamped - fromBaseNowUs;
    if (baseNowSeen < wanted) {
      fromBaseNow = fromMicros(wanted - baseNowSeen);
      addEvent(ev, &fromBaseNow);
    }
  }
}

// Re-binds `ev` to `fd` with `flags`, keeping its callback, and watches it without timeout;
// a negative `fd` leaves it bound to nothing and unwatched.
void watch(event* ev, int fd, short flags) {
  event_callback_fn callback = event_get_callback(ev);
  void* control = event_get_callback_arg(ev);
  event_del(ev);
  event_assign(ev, leBaseOrInit(), fd, flags, callback, control);
  if (fd >= 0) {
    addEvent(ev, nullptr);
  }
}

// Reads stay watched until switched off; a write interest yields at most one notification.
constexpr short kReadFlags = EV_READ | EV_PERSIST;
constexpr short kWriteFlags = EV_WRITE;

// The handler may destroy the control from inside the notification, so the caller must not
// touch the control after this returns.
void notify(Platform::FdEventHandler* handler, int fd, void (Platform::FdEventHandler::*op)(int)) {
  try {
    try {
      (handler->*op)(fd);
    } catch (...) {
      if (!handler->handleFdException(fd)) {
        throw;
      }
    }
  } catch (...) {
    leParkException(std::current_exception());
  }
}

}  // namespace

void Impl::LeEventFree::operator()(event* ev) const {
  event_free(ev);
}

// ---- LibeventFdControl ----

LibeventFdControl::LibeventFdControl(Platform::FdEventHandler* handler) : handler_(handler) {
  requireHandler(handler, __func__, __LINE__);
  readEvent_.reset(newEvent(handleFdRead, this));
  writeEvent_.reset(newEvent(handleFdWrite, this));
}

LibeventFdControl::~LibeventFdControl() {
  delFd();
}

void LibeventFdControl::setFd(int fd) {
  fd_ = fd;
  int flags = fcntl(fd, F_GETFL);
  check(flags >= 0, "flags >= 0");
  int result = fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  check(result == 0, "result == 0");
  if (reads_) {
    watch(readEvent_.get(), fd_, kReadFlags);
  }
  if (writes_) {
    watch(writeEvent_.get(), fd_, kWriteFlags);
  }
}

void LibeventFdControl::setReads(bool on) {
  reads_ = on;
  if (fd_ >= 0) {
    watch(readEvent_.get(), on ? fd_ : -1, kReadFlags);
  }
}

void LibeventFdControl::setWrites(bool on) {
  writes_ = on;
  if (fd_ >= 0) {
    watch(writeEvent_.get(), on ? fd_ : -1, kWriteFlags);
  }
}

void LibeventFdControl::clearEvents() {
  watch(readEvent_.get(), -1, kReadFlags);
  watch(writeEvent_.get(), -1, kWriteFlags);
}

void LibeventFdControl::delFd() {
  clearEvents();
  fd_ = -1;
}

int LibeventFdControl::getFd() const {
  return fd_;
}

void LibeventFdControl::handleFdRead(int, short, void* control) {
  auto* self = static_cast<LibeventFdControl*>(control);
  notify(self->handler_, self->getFd(), &Platform::FdEventHandler::readFdEvent);
}

void LibeventFdControl::handleFdWrite(int, short, void* control) {
  auto* self = static_cast<LibeventFdControl*>(control);
  notify(self->handler_, self->getFd(), &Platform::FdEventHandler::writeFdEvent);
}

// ---- LibeventTimerControl ----

LibeventTimerControl::LibeventTimerControl(Platform::TimeoutHandler* handler) : handler_(handler) {
  requireHandler(handler, __func__, __LINE__);
  timer_.reset(newEvent(handleTimeout, this));
}

LibeventTimerControl::~LibeventTimerControl() = default;

void LibeventTimerControl::setTimeout(double seconds) {
  setTimeoutFrom(seconds, TaskTimePoint{});
}

void LibeventTimerControl::setTimeoutFrom(double seconds, TaskTimePoint from) {
  const int64_t delayUs = leSpanMicros(seconds);
  TARVO_TRACE(traceHandler, 9,
              "Timer " << static_cast<const void*>(this) << " set timeout " << seconds);
  if (delayUs < 0) {
    delTimeout();
    return;
  }
  // The event was assigned to the thread's base at construction, and that base outlives
  // every control of the thread, so it is simply added again. Adding a pending (or fired,
  // not yet delivered) event replaces its expiry in one step, without a removal first. A zero
  // delay needs no clock: such a timer is due at once.
  if (delayUs == 0) {
    const timeval zero{0, 0};
    addEvent(timer_.get(), &zero);
  } else {
    const int64_t now =
        from == TaskTimePoint{}
            ? monotonicNowMicros()
            : std::chrono::duration_cast<std::chrono::microseconds>(from.time_since_epoch())
                  .count();
    addTimer(timer_.get(), delayUs, now);
  }
  armed_ = true;
}

void LibeventTimerControl::delTimeout() {
  TARVO_TRACE(traceHandler, 9, "Timer " << static_cast<const void*>(this) << " del timeout");
  if (armed_) {
    event_del(timer_.get());
    armed_ = false;
  }
}

bool LibeventTimerControl::timerPending() const {
  return event_pending(timer_.get(), EV_TIMEOUT, nullptr) & EV_TIMEOUT;
}

double LibeventTimerControl::remainingTimeout() const {
  if (!timerPending()) {
    return HUGE_VAL;
  }
  // The expiry as libevent keeps it, on the monotonic scale (the wall clock libevent would
  // report it on is derived from its coarse clock, off by up to a tick). Fast-forward moves
  // it like any other expiry.
  const int64_t left = toMicros(timer_->ev_timeout) - monotonicNowMicros();
  return left > 0 ? static_cast<double>(left) / 1e6 : 0;
}

void LibeventTimerControl::handler() {
  Platform::TimeoutHandler* handler = handler_;
  TARVO_TRACE(traceHandler, 9, "Timer " << static_cast<const void*>(this) << " expired");
  try {
    handler->timeout();
  } catch (...) {
    if (!handler->handleTimeoutException()) {
      throw;
    }
    TARVO_TRACE(traceHandler, 9,
                "LibeventTimerControl::handler: Timeout notification exception was handled");
  }
}

void LibeventTimerControl::handleTimeout(int, short, void* control) {
  auto* self = static_cast<LibeventTimerControl*>(control);
  // libevent has already taken the one-shot event out of the base.
  self->armed_ = false;
  try {
    self->handler();
  } catch (...) {
    leParkException(std::current_exception());
  }
}

// ---- LibeventCallbackControl ----

LibeventCallbackControl::LibeventCallbackControl(Platform::CallbackHandler* handler)
    : LibeventTimerControl(this), handler_(handler) {
  requireHandler(handler, __func__, __LINE__);
}

void LibeventCallbackControl::requestCallback() {
  TARVO_TRACE(traceHandler, 9, "Callback " << static_cast<const void*>(this) << " request");
  LibeventTimerControl::setTimeout(0);
}

void LibeventCallbackControl::cancelCallback() {
  TARVO_TRACE(traceHandler, 9, "Callback " << static_cast<const void*>(this) << " cancel");
  LibeventTimerControl::delTimeout();
}

bool LibeventCallbackControl::pendingCallback() const {
  return timerPending();
}

void LibeventCallbackControl::timeout() {
  Platform::CallbackHandler* handler = handler_;
  TARVO_TRACE(traceHandler, 9, "Callback " << static_cast<const void*>(this) << " execute");
  // What leaves here is parked rather than rethrown: the callback may have destroyed this
  // control, and the timer part that called us would otherwise ask it about the exception.
  // That covers an exception thrown by the exception hook itself, too.
  try {
    try {
      handler->callback();
    } catch (...) {
      if (!handler->handleCallbackException()) {
        throw;
      }
      TARVO_TRACE(traceHandler, 9,
                  "LibeventCallbackControl::timeout: Callback notification exception was handled");
    }
  } catch (...) {
    leParkException(std::current_exception());
  }
}

// ---- Factories ----

std::shared_ptr<Platform::FdControl> getLeFdControl(Platform::FdEventHandler* handler) {
  return std::make_shared<LibeventFdControl>(handler);
}

std::shared_ptr<Platform::TimerControl> getLeTimerControl(Platform::TimeoutHandler* handler) {
  return std::make_shared<LibeventTimerControl>(handler);
}

std::shared_ptr<Platform::CallbackControl> getLeCallbackControl(
    Platform::CallbackHandler* handler) {
  return std::make_shared<LibeventCallbackControl>(handler);
}

}  // namespace Tarvo
