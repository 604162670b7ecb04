// The scheduler's clock.
//
// TaskClock::now() returns std::chrono::steady_clock time points, so its readings compare
// with steady_clock::now() and with each other. Where the CPU has an invariant cycle counter
// and the kernel keeps time with it, a reading is that counter, scaled and kept in step with
// the kernel's monotonic clock: about half the cost of a clock call, never going backwards,
// and within a microsecond or so of steady_clock (the drift of a 50 ms interval; it may be
// ahead of steady_clock by that much, never behind by more than a reading's own delay).
// Elsewhere, and for the first 10 ms after the process first reads it, a reading is
// steady_clock itself. Any thread may read it; a reading takes no lock and allocates nothing.
#pragma once

#include <chrono>

namespace Tarvo {

using TaskTimePoint = std::chrono::steady_clock::time_point;

struct TaskClock {
  static TaskTimePoint now() noexcept;
};

}  // namespace Tarvo
