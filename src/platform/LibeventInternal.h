// Shared by the libevent loop, the libevent controls and virtual time.
#pragma once

#include <sys/time.h>

#include <exception>

#include "Tarvo/Debug.h"

struct event_base;

namespace Tarvo {

// The "TarvoLibevent" trace handler; obtained on first use, never released. Inline so that
// the trace test on the timer paths stays a guard load and a bit test.
inline Platform::DebugHandler* leDebugHandler() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("TarvoLibevent");
  return handler;
}

// The calling thread's base, created if it has none.
event_base* leBaseOrInit();

// Called from a libevent callback when a handler lets an exception through: keeps it for
// the running loop call to rethrow once libevent has returned (exceptions never unwind
// through libevent's own frames) and asks the loop to stop after this callback.
void leParkException(std::exception_ptr exception);

// Splits a span in seconds into a timeval, truncating to whole microseconds. Zero, negative
// and NaN spans give 0; returns false for +infinity (and spans beyond 1e9 seconds), which
// mean "no limit".
bool leSplitSeconds(double seconds, timeval* out);

// Makes every pending timer of the thread's base due `advance` sooner and adds `advance` to
// the thread's virtual time offset. A zero advance does nothing.
void leAdvance(const timeval& advance);

}  // namespace Tarvo
