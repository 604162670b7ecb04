// The process's cycle-counter clock, as the library's own sources read it: inline, so that
// the scheduler's time stamps cost no call. TaskClock::now() is the same reading for clients.
#pragma once

#include <cstdint>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include "Tarvo/TaskClock.h"
#include "platform/CycleClock.h"

namespace Tarvo {

struct ProcessClockSource {
  static uint64_t cycles() noexcept {
#if defined(__x86_64__)
    return __rdtsc();
#else
    return 0;
#endif
  }
  static int64_t referenceNs() noexcept;
  static int32_t threadId() noexcept;
  static bool threadAlive(int32_t id) noexcept;
  // The counter must run at one rate whatever the core's frequency or sleep state (the
  // invariant-TSC bit), and the kernel must time itself with it, which it does only after
  // checking that the cores' counters agree.
  static bool cyclesUsable() noexcept;
};

extern CycleClock<ProcessClockSource> processClock __attribute__((visibility("hidden")));

inline TaskTimePoint processClockNow() noexcept {
  return TaskTimePoint(std::chrono::nanoseconds(processClock.nowNs()));
}

}  // namespace Tarvo
