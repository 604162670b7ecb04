// The scheduler's clock.
//
// TaskClock::now() returns std::chrono::steady_clock time points, so its readings compare with
// steady_clock::now() and with each other. Where the CPU has an invariant cycle counter and the
// kernel keeps time with it, a reading is that counter, scaled and re-measured against the
// kernel's monotonic clock every 50 ms, at about two thirds of the cost of a clock call:
//  - within a thread, readings never go back;
//  - a reading stays within the drift of one 50 ms interval of steady_clock (well under a
//    microsecond on a steadily running machine), and is typically a few tens of nanoseconds
//    ahead of it, so steady_clock::now() minus a reading just taken can be slightly negative;
//  - the counter read is not serialised, so across threads a reading taken after learning of
//    another thread's reading can be smaller than it by up to a few hundred nanoseconds.
// The scheduler compares only readings of one thread. Elsewhere (other CPUs, a kernel that
// stopped trusting the counter), and for the first 10 ms after the process first reads it, a
// reading is steady_clock itself. Any thread may read it, a signal handler too; a reading
// takes no lock, never waits for another reading and allocates nothing.
#pragma once

#include <chrono>

namespace Tarvo {

// A time stamp of the scheduler.
using TaskTimePoint = std::chrono::steady_clock::time_point;

// The scheduler's clock; see the top of this file.
struct TaskClock {
  // The current time.
  static TaskTimePoint now() noexcept;
};

}  // namespace Tarvo
