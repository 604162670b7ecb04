#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <system_error>

#include "Tarvo/Platform.h"
#include "platform/LocoFork.h"

namespace Tarvo {

// The recursive library lock. The owner is kept beside the mutex so that owns_lock() is a
// plain comparison; the depth lets unlock() clear the owner before the outermost release.
class Loco final : public Platform::Loco {
 public:
  void lock() override {
    int rc = pthread_mutex_lock(&mutex_);
    if (rc != 0) {
      throw std::system_error(rc, std::generic_category(), "Tarvo::Loco::lock");
    }
    owner_.store(pthread_self(), std::memory_order_relaxed);
    ++depth_;
  }

  void unlock() override {
    if (--depth_ == 0) {
      owner_.store(pthread_t{}, std::memory_order_relaxed);
    }
    int rc = pthread_mutex_unlock(&mutex_);
    if (rc != 0) {
      throw std::system_error(rc, std::generic_category(), "Tarvo::Loco::unlock");
    }
  }

  bool owns_lock() const override {
    return pthread_equal(owner_.load(std::memory_order_relaxed), pthread_self());
  }

  void resetInChild() {
    // Only the forking thread survives: unless it is the owner, no living thread holds the
    // lock, whatever the owner and depth fields say (a thread may have been stopped between
    // taking the mutex and recording itself, or between clearing itself and releasing it).
    if (!owns_lock()) {
      mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
      owner_.store(pthread_t{}, std::memory_order_relaxed);
      depth_ = 0;
    }
  }

 private:
  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  std::atomic<pthread_t> owner_{};
  unsigned depth_ = 0;  // written only by the holder
};

namespace Platform {

namespace {
Tarvo::Loco& theLoco() {
  // Never destroyed: static destructors of other modules may still trace.
  static Tarvo::Loco* const instance = new Tarvo::Loco;
  return *instance;
}
}  // namespace

Loco& loco() {
  return theLoco();
}

void locoAfterFork() {
  theLoco().resetInChild();
}

}  // namespace Platform
}  // namespace Tarvo
