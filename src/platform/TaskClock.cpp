#include "Tarvo/TaskClock.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#if defined(__x86_64__)
#include <cpuid.h>
#include <x86intrin.h>
#endif

#include "platform/CycleClock.h"

namespace Tarvo {
namespace {

struct ProcessSource {
  static uint64_t cycles() noexcept {
#if defined(__x86_64__)
    return __rdtsc();
#else
    return 0;
#endif
  }

  static int64_t referenceNs() noexcept {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
  }

  static int32_t processId() noexcept {
    return ::getpid();
  }

  // The counter must run at one rate whatever the core's frequency or sleep state (the
  // invariant-TSC bit), and the kernel must time itself with it, which it does only after
  // checking that the cores' counters agree.
  static bool cyclesUsable() noexcept {
#if defined(__x86_64__)
    unsigned eax, ebx, ecx, edx;
    if (!__get_cpuid(0x80000007, &eax, &ebx, &ecx, &edx) || !(edx & (1u << 8))) {
      return false;
    }
    int fd = ::open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                    O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      return false;
    }
    char name[16];
    ssize_t n = ::read(fd, name, sizeof name);
    ::close(fd);
    return n == 4 && std::memcmp(name, "tsc\n", 4) == 0;
#else
    return false;
#endif
  }
};

constinit CycleClock<ProcessSource> processClock;

}  // namespace

TaskTimePoint TaskClock::now() noexcept {
  return TaskTimePoint(std::chrono::nanoseconds(processClock.nowNs()));
}

}  // namespace Tarvo
