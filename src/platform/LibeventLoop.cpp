// The per-thread event base and the loop forms that run it.
#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "platform/LibeventInternal.h"
#include "util/EnvNumbers.h"

namespace Tarvo {
namespace {

// Trivially destructible, so that they stay readable while the thread's other thread-local
// objects are destroyed.
thread_local event_base* threadBase = nullptr;
thread_local bool threadBaseOwned = false;  // created by leInit(), not registered
thread_local unsigned liveControls = 0;
thread_local bool threadExiting = false;

void freeOwnedBase() {
  if (threadBase != nullptr && threadBaseOwned) {
    event_base_free(threadBase);
  }
  threadBase = nullptr;
  threadBaseOwned = false;
}

// Frees the base leInit() created when the thread exits, or, if controls are still alive
// then (held by other thread-local or static objects), when the last of them goes.
struct ThreadExit {
  ~ThreadExit() {
    threadExiting = true;
    if (liveControls == 0) {
      freeOwnedBase();
    }
  }
};
thread_local ThreadExit threadExit;

thread_local std::exception_ptr parkedException;
thread_local unsigned loopDepth = 0;

const char* const kSource = "LibeventFactory";

void rethrowParked() {
  if (parkedException) [[unlikely]] {
    std::exception_ptr exception = std::move(parkedException);
    parkedException = nullptr;
    std::rethrow_exception(exception);
  }
}

// Marks the thread as inside a loop call; libevent cannot run a base's loop from inside one
// of its own callbacks, so that is refused with a clear error.
class LoopScope {
 public:
  LoopScope() {
    if (loopDepth != 0) {
      debugAndThrowAssertException(nullptr, 0,
                                   "event loop run from inside one of its own notifications",
                                   kSource, __func__, __LINE__);
    }
    ++loopDepth;
  }
  ~LoopScope() { --loopDepth; }
  LoopScope(const LoopScope&) = delete;
  LoopScope& operator=(const LoopScope&) = delete;
};

// One event_base_loop call. Returns libevent's result: 0, or 1 when nothing was pending.
int runLoop(event_base* base, int flags) {
  int rc = event_base_loop(base, flags);
  rethrowParked();
  if (rc < 0) {
    RuntimeException::throwException("event_base_loop failed");
  }
  return rc;
}

bool loopStopped(event_base* base) {
  return event_base_got_exit(base) || event_base_got_break(base);
}

// The untimed loop. Without fast-forward it is libevent's own dispatch. With fast-forward it
// runs pass by pass, advancing virtual time to the earliest timer before each pass.
void runUntimed(event_base* base) {
  while (leFastForward()) {
    timeval delay;
    if (fastForwardDelayToFirstTimer(&delay)) {
      leAdvance(delay);
    }
    if (runLoop(base, EVLOOP_ONCE) == 1 || loopStopped(base)) {
      return;
    }
  }
  runLoop(base, 0);
}

struct LoopExit {
  event ev;
  bool fired = false;
};

void handleBaseLoopExit(evutil_socket_t, short, void* arg) {
  auto* exit = static_cast<LoopExit*>(arg);
  exit->fired = true;
  event_base_loopexit(event_get_base(&exit->ev), nullptr);
  event_del(&exit->ev);
}

// The timed loop: returns once `span` has passed, once nothing but its own exit event is
// left to wait for, or when the loop is told to exit.
void runTimed(event_base* base, const timeval& span, const timeval* advance) {
  LoopExit exit;
  event_assign(&exit.ev, base, -1, 0, handleBaseLoopExit, &exit);
  event_add(&exit.ev, &span);
  struct Remove {
    event* ev;
    ~Remove() { event_del(ev); }
  } remove{&exit.ev};
  if (advance != nullptr) {
    leAdvance(*advance);
  }
  while (!exit.fired &&
         event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED | EVENT_BASE_COUNT_ACTIVE) > 1) {
    runLoop(base, EVLOOP_ONCE);
    if (loopStopped(base)) {
      return;
    }
  }
}

void installCallbacks() {
  static std::once_flag once;
  std::call_once(once, [] {
    event_set_fatal_callback(le_fatal_cb);
    event_set_log_callback(le_debug_cb);
  });
}

// The descriptors a new base makes for itself: the epoll instance, the signal socket pair and
// the wake-up descriptor.
constexpr int kBaseDescriptors = 4;

// 0 when `count` descriptors can be opened now, else the errno of the failure. libevent treats
// a failure to make its own descriptors as fatal: it calls the fatal callback from deep inside
// event_base_new and leaves what it made open, so running out is caught before that.
int descriptorsMissing(int count) {
  int fds[kBaseDescriptors];
  int opened = 0;
  int error = 0;
  while (opened < count) {
    fds[opened] = ::eventfd(0, EFD_CLOEXEC);
    if (fds[opened] < 0) {
      error = errno;
      break;
    }
    ++opened;
  }
  while (opened > 0) {
    ::close(fds[--opened]);
  }
  return error;
}

}  // namespace

Platform::DebugHandler* leDebugHandler() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("TarvoLibevent");
  return handler;
}

void leInit() {
  if (threadBase != nullptr) {
    return;
  }
  installCallbacks();
  int error = descriptorsMissing(kBaseDescriptors);
  if (error != 0) {
    RuntimeException::throwException(std::string("event_base_new failed: ") + strerror(error));
  }
  // With libevent's default (coarse) clock; the timer control corrects its expiries. The
  // precise clock (EVENT_BASE_FLAG_PRECISE_TIMER) makes epoll arm a timerfd on every loop
  // pass, which more than doubles the cost of a pass.
  event_base* base = event_base_new();
  if (base == nullptr) {
    RuntimeException::throwException("event_base_new failed");
  }
  threadBase = base;
  threadBaseOwned = true;
  (void)&threadExit;  // constructs it, so that it runs at thread exit
  Platform::setMainThread();
}

event_base* leBaseOrInit() {
  if (threadBase == nullptr) [[unlikely]] {
    leInit();
  }
  return threadBase;
}

void leRegisterBase(event_base* base) {
  if (threadBase == base) {
    return;
  }
  if (threadBase != nullptr) {
    Platform::DebugStream message;
    message << "Tried to register a base:" << static_cast<const void*>(base)
            << " but a thread_local "
            << " base already exists: " << static_cast<const void*>(threadBase);
    debugAndThrowAssertException(nullptr, 0, message, kSource, __func__, __LINE__);
  }
  threadBase = base;
  threadBaseOwned = false;
  Platform::setMainThread();
}

void leFree() {
  if (threadBase == nullptr) {
    return;
  }
  if (liveControls != 0) {
    Platform::DebugStream message;
    message << "leFree with " << liveControls << " controls still using the base";
    debugAndThrowAssertException(nullptr, 0, message, kSource, __func__, __LINE__);
  }
  event_base_free(threadBase);
  threadBase = nullptr;
  threadBaseOwned = false;
}

namespace Impl {

LeControlCount::LeControlCount() {
  ++liveControls;
}

LeControlCount::~LeControlCount() {
  if (--liveControls == 0 && threadExiting) {
    freeOwnedBase();
  }
}

}  // namespace Impl

bool leInitialized() {
  return threadBase != nullptr;
}

event_base* leBase() {
  return threadBase;
}

void leForkReinit() {
  if (threadBase == nullptr) {
    leInit();
    return;
  }
  if (event_reinit(threadBase) != 0) {
    RuntimeException::throwException("event_reinit failed");
  }
}

void leParkException(std::exception_ptr exception) {
  // The loop stops after the callback that let the exception through, so one is enough.
  if (!parkedException) {
    parkedException = std::move(exception);
  }
  if (threadBase != nullptr) {
    event_base_loopbreak(threadBase);
  }
}

bool leSplitSeconds(double seconds, timeval* out) {
  const int64_t micros = leSpanMicros(seconds);
  if (micros < 0) {
    return false;
  }
  out->tv_sec = static_cast<time_t>(micros / 1000000);
  out->tv_usec = static_cast<suseconds_t>(micros % 1000000);
  return true;
}

void doLeEventLoop() {
  LoopScope scope;
  event_base* base = leBaseOrInit();
  rethrowParked();
  runUntimed(base);
}

void doLeEventLoop(double seconds) {
  timeval span;
  if (!leSplitSeconds(seconds, &span)) {
    doLeEventLoop();
    return;
  }
  LoopScope scope;
  event_base* base = leBaseOrInit();
  rethrowParked();
  if (leFastForward()) {
    const timeval now{0, 0};
    runTimed(base, now, &span);
  } else {
    runTimed(base, span, nullptr);
  }
}

void doLeEventLoopInWaitfor(double seconds) {
  if (!leFastForward()) {
    doLeEventLoop(seconds);
    return;
  }
  timeval span;
  const bool finite = leSplitSeconds(seconds, &span);
  {
    LoopScope scope;
    event_base* base = leBaseOrInit();
    rethrowParked();
    // Up to the earliest timer at most, also when the span has no limit: the caller waits
    // for a condition and must get control back to test it.
    timeval delay;
    if (fastForwardDelayToFirstTimer(&delay) && (!finite || timercmp(&delay, &span, <))) {
      const timeval now{0, 0};
      runTimed(base, now, &delay);
      return;
    }
    if (finite) {
      const timeval now{0, 0};
      runTimed(base, now, &span);
      return;
    }
  }
  doLeEventLoop();  // no timer and no limit: only descriptors and callbacks can end the wait
}

double waitForDefaultTimeout() {
  static const double value = [] {
    const char* text = std::getenv("WAITFOR_DEFAULT");
    if (text == nullptr) {
      return HUGE_VAL;
    }
    double parsed = HUGE_VAL;
    if (!Impl::parseWaitForDefault(text, &parsed)) {
      std::cerr << "Parsing the WAITFOR_DEFAULT env. variable failed" << std::flush;
      return HUGE_VAL;
    }
    return parsed;
  }();
  return value;
}

void le_debug_cb(int severity, const char* msg) {
  unsigned level;
  switch (severity) {
    case EVENT_LOG_DEBUG:
      level = 9;
      break;
    case EVENT_LOG_MSG:
      level = 5;
      break;
    case EVENT_LOG_WARN:
      level = 1;
      break;
    case EVENT_LOG_ERR:
      level = 0;
      break;
    default: {
      Platform::DebugStream message;
      message << "invalid libevent severity:" << severity << " msg:" << (msg ? msg : "");
      debugAndThrowAssertException(nullptr, 0, message, kSource, __func__, __LINE__);
    }
  }
  TARVO_TRACE(leDebugHandler(), level, "libevent: " << (msg ? msg : ""));
}

void le_fatal_cb(int err) {
  Platform::DebugStream message;
  message << "libevent fatal error:" << err;
  debugAndThrowAssertException(nullptr, 0, message, kSource, __func__, __LINE__);
}

}  // namespace Tarvo
