#include "Tarvo/ForkHandler.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "Tarvo/Exception.h"

namespace Tarvo::Platform {
namespace {
std::atomic<bool> forkedChild{false};
}  // namespace

void handleFork() {
  forkedChild.store(true, std::memory_order_relaxed);
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
