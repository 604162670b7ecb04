// A mutex that knows which thread holds it, and a scope guard over it whose release at scope
// exit can be switched off.
//
// Lock satisfies Lockable (lock, try_lock, unlock), so std::lock_guard and std::unique_lock
// work with it too. It is not recursive: locking it again from the holding thread deadlocks.
//
// Failure behaviour: unlock() by a thread that does not hold the lock throws AssertException
// and leaves the lock as it was; a failing pthread_mutex_lock is thrown as std::system_error.
//
// Threads: any thread may call any member; owns_lock() is exact for the calling thread.
#pragma once

#include <pthread.h>

#include <atomic>

namespace Tarvo {
namespace Locking {

// A mutex that knows its holder; not recursive. See the top of this file.
class Lock {
 public:
  Lock() = default;
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Waits for the mutex and records the calling thread as its owner. Throws
  // std::system_error carrying the error number when the mutex refuses.
  void lock();
  // Takes the mutex if it is free; false, with nothing changed, when it is not.
  bool try_lock();
  // Whether the calling thread holds the lock.
  bool owns_lock() const;
  // Releases a lock held by the calling thread. Throws AssertException otherwise.
  void unlock();

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  // The holder's pthread_self(); 0 while free. Written only by the holder, read by anyone.
  std::atomic<pthread_t> owner_{0};
};

// Locks `lock` for its scope. After releaseIs(false) the lock outlives the scope, and the code
// that took it over calls unlock() later. Releases only when the destroying thread holds the
// lock, so it never throws.
class ConditionalGuard {
 public:
  // Takes `lock`.
  explicit ConditionalGuard(Lock& lock) : lock_(&lock) { lock_->lock(); }
  ~ConditionalGuard() {
    if (release_ && lock_->owns_lock()) {
      lock_->unlock();
    }
  }
  ConditionalGuard(const ConditionalGuard&) = delete;
  ConditionalGuard& operator=(const ConditionalGuard&) = delete;

  // Whether the destructor releases the lock (initially true).
  void releaseIs(bool release) { release_ = release; }
  bool release() const { return release_; }

 private:
  Lock* lock_;
  bool release_ = true;
};

}  // namespace Locking
}  // namespace Tarvo
