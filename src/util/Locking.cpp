#include "Tarvo/Locking.h"

#include <system_error>

#include "Tarvo/Exception.h"
#include "util/UtilTrace.h"

namespace Tarvo::Locking {

Lock::~Lock() {
  pthread_mutex_destroy(&mutex_);
}

void Lock::lock() {
  int rc = pthread_mutex_lock(&mutex_);
  if (rc != 0) {
    throw std::system_error(rc, std::generic_category(), "pthread_mutex_lock");
  }
  owner_.store(pthread_self(), std::memory_order_relaxed);
}

bool Lock::try_lock() {
  if (pthread_mutex_trylock(&mutex_) != 0) {
    return false;
  }
  owner_.store(pthread_self(), std::memory_order_relaxed);
  return true;
}

// Only the calling thread can have stored its own identity, so a relaxed load is exact for it.
bool Lock::owns_lock() const {
  return pthread_equal(owner_.load(std::memory_order_relaxed), pthread_self()) != 0;
}

void Lock::unlock() {
  if (!owns_lock()) {
    debugAndThrowAssertException(
        &Util::Impl::utilTrace(), 0,
        "Tarvo::Locking::unlock() attempting to release a lock that is not currently held",
        "Locking", "unlock", __LINE__);
  }
  owner_.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&mutex_);
}

}  // namespace Tarvo::Locking
