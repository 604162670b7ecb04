// Shared by the libevent loop, the libevent controls and virtual time.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <exception>

#include "Tarvo/Debug.h"
#include "util/WholeUnits.h"

struct event_base;

namespace Tarvo {

// Everything here is internal to the library: hidden, so that calls from the hot paths are
// direct rather than through the procedure linkage table.
#define TARVO_INTERNAL __attribute__((visibility("hidden")))

// The "TarvoLibevent" trace handler; obtained on first use, never released.
TARVO_INTERNAL Platform::DebugHandler* leDebugHandler();

// The calling thread's base, created if it has none.
TARVO_INTERNAL event_base* leBaseOrInit();

// Called from a libevent callback when a handler lets an exception through: keeps it for
// the running loop call to rethrow once libevent has returned (exceptions never unwind
// through libevent's own frames) and asks the loop to stop after this callback.
TARVO_INTERNAL void leParkException(std::exception_ptr exception);

// A span in seconds as whole microseconds, truncated. Zero, negative and NaN spans give 0;
// +infinity (and spans beyond 1e9 seconds), which mean "no limit", give -1.
inline int64_t leSpanMicros(double seconds) {
  if (!(seconds > 0)) {
    return 0;
  }
  if (seconds >= 1e9) {
    return -1;
  }
  return Util::Impl::wholeUnits(seconds, 1e6);
}

// leSpanMicros() as a timeval; returns false for "no limit".
TARVO_INTERNAL bool leSplitSeconds(double seconds, timeval* out);

// Makes every pending timer of the thread's base due `advance` sooner and adds `advance` to
// the thread's virtual time offset; traced at level 2 of "TarvoLibevent", a zero advance
// too (it moves nothing).
TARVO_INTERNAL void leAdvance(const timeval& advance);

}  // namespace Tarvo
