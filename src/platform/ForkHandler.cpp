#include "Tarvo/ForkHandler.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "platform/LocoFork.h"

namespace Tarvo::Platform {
namespace {
std::atomic<bool> forkedChild{false};
}  // namespace

void handleFork() {
  forkedChild.store(true, std::memory_order_relaxed);
  // The forking thread is the child's only thread, so its main thread, whichever thread of
  // the parent it was.
  setMainThread();
  locoAfterFork();
  // The forking thread's event base shares its kernel state with the parent's until it is
  // re-initialised; the other threads, and their bases, do not exist in the child.
  if (leInitialized()) {
    try {
      leForkReinit();
    } catch (const std::exception& e) {
      static constexpr char kFailed[] = "Tarvo: event base re-initialisation after fork failed\n";
      ssize_t ignored = ::write(STDERR_FILENO, kFailed, sizeof kFailed - 1);
      (void)ignored;
    }
  }
}

bool isForkedChild() {
  return forkedChild.load(std::memory_order_relaxed);
}

void setupHandler() {
  int rc = pthread_atfork(nullptr, nullptr, handleFork);
  if (rc != 0) {
    std::cerr << "Tarvo failed to register atfork handler, reason: " << std::strerror(rc)
              << std::endl;
    fatal("false && \"Failed to register Tarvo atfork handler\"");
  }
}

namespace {
// Registered when the library is loaded, before any client code can fork.
const bool forkHookRegistered = (setupHandler(), true);
}  // namespace

}  // namespace Tarvo::Platform
