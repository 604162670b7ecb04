#include "platform/ProcessClock.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace Tarvo {

constinit CycleClock<ProcessClockSource> processClock;

int64_t ProcessClockSource::referenceNs() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

int32_t ProcessClockSource::threadId() noexcept {
  return static_cast<int32_t>(::gettid());
}

// Signal 0 to a thread of this thread group: ESRCH when there is none with that id. A clock
// read leaves errno as it found it.
bool ProcessClockSource::threadAlive(int32_t id) noexcept {
  int saved = errno;
  bool alive = ::syscall(SYS_tgkill, ::getpid(), id, 0) == 0 || errno != ESRCH;
  errno = saved;
  return alive;
}

namespace {
bool counterTrusted() {
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
}  // namespace

// A clock read leaves errno as it found it.
bool ProcessClockSource::cyclesUsable() noexcept {
  int saved = errno;
  bool usable = counterTrusted();
  errno = saved;
  return usable;
}

TaskTimePoint TaskClock::now() noexcept {
  return processClockNow();
}

}  // namespace Tarvo
