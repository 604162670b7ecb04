#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "Tarvo/Platform.h"

namespace Tarvo::Platform {
namespace {
thread_local bool mainThread = false;
std::atomic<bool> threadLocalSingletons{false};
std::atomic<uint32_t> auxThreads{0};
}  // namespace

pid_t gettid() {
  return static_cast<pid_t>(syscall(SYS_gettid));
}

bool isMainThread() {
  return gettid() == getpid();
}

void setMainThread() {
  mainThread = isMainThread();
}

bool mainThreadFlag() {
  return mainThread;
}

void useThreadLocalSingletons() {
  threadLocalSingletons.store(true);
}

bool hasThreadLocalSingletons() {
  return threadLocalSingletons.load();
}

void threadSafePointerIs(bool) {}

uint32_t auxThreadCount() {
  return auxThreads.load(std::memory_order_relaxed);
}

void auxThreadCountInc() {
  auxThreads.fetch_add(1, std::memory_order_relaxed);
}

void auxThreadCountDec() {
  auxThreads.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace Tarvo::Platform
