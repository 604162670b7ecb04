// The library clock, the per-thread virtual time offset and fast-forward.
#include <time.h>

#include <atomic>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "platform/EventBaseTimeouts.h"
#include "platform/LibeventInternal.h"

namespace Tarvo {
namespace {

// Written only by the main thread, read by every thread's loop.
std::atomic<bool> fastForwardOn{false};
thread_local timeval virtualOffset{0, 0};

const char* const kSource = "LibeventFactory";

double seconds(const timeval& tv) {
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
}

}  // namespace

double time() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 +
         seconds(virtualOffset);
}

double leVirtualTimeOffset() {
  return seconds(virtualOffset);
}

void setLeFastForward(bool on) {
  leInit();
  if (!Platform::mainThreadFlag()) {
    debugAndThrowAssertException(nullptr, 0, "FastForward invoked from non-main thread", kSource,
                                 __func__, __LINE__);
  }
  fastForwardOn.store(on, std::memory_order_relaxed);
}

bool leFastForward() {
  return fastForwardOn.load(std::memory_order_relaxed);
}

bool fastForwardDelayToFirstTimer(timeval* delay) {
  if (!leFastForward()) {
    debugAndThrowAssertException(nullptr, 0, "Called without fast forward enabled", kSource,
                                 __func__, __LINE__);
  }
  event_base* base = leBaseOrInit();
  timeval first;
  if (event_base_get_first_timeout(base, &first) != 0) {
    return false;
  }
  timeval now;
  if (tarvo_event_base_now(base, &now) != 0) {
    RuntimeException::throwException("cannot read the event base's time");
  }
  if (!timercmp(&first, &now, >)) {
    *delay = {0, 0};
  } else {
    timersub(&first, &now, delay);
  }
  return true;
}

void leAdvance(const timeval& advance) {
  if (advance.tv_sec != 0 || advance.tv_usec != 0) {
    if (event_base_timeout_subtract_offset(leBaseOrInit(), &advance) != 0) {
      RuntimeException::throwException("cannot move the event base's timers");
    }
    virtualOffset.tv_sec += advance.tv_sec;
    virtualOffset.tv_usec += advance.tv_usec;
    if (virtualOffset.tv_usec > 999999) {
      virtualOffset.tv_usec -= 1000000;
      ++virtualOffset.tv_sec;
    }
  }
  TARVO_TRACE(
      leDebugHandler(), 2,
      "Increasing virtual time offset by " << seconds(advance) << " to " << seconds(virtualOffset));
}

}  // namespace Tarvo
