// The platform layer: the library lock, thread utilities and the fork hook.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace Tarvo {
namespace Platform {

// The library-wide lock. It guards process-wide state (the trace registry and trace file,
// shared tables) and is recursive, so public entry points may call each other while
// holding it. Satisfies BasicLockable.
class Loco {
 public:
  virtual void lock() = 0;
  virtual void unlock() = 0;
  // Whether the calling thread holds the lock.
  virtual bool owns_lock() const = 0;

 protected:
  virtual ~Loco() = default;
};

// The one library lock; created on first use and never destroyed, so it stays usable
// during static destruction. Thread-safe.
Loco& loco();

// Holds the library lock for its scope; nests on one thread.
class LocoGuard {
 public:
  explicit LocoGuard(Loco& l = loco()) : loco_(&l) { loco_->lock(); }
  ~LocoGuard() { loco_->unlock(); }
  LocoGuard(const LocoGuard&) = delete;
  LocoGuard& operator=(const LocoGuard&) = delete;

 private:
  Loco* loco_;
};

// The kernel thread id of the calling thread.
pid_t gettid();
// Whether the calling thread is the process's first thread (its tid equals the pid).
bool isMainThread();
// Records isMainThread() in the calling thread's main-thread flag; done when the thread's
// event base is created or registered.
void setMainThread();
// The calling thread's main-thread flag as last recorded by setMainThread() (false before).
bool mainThreadFlag();

// The process-wide wish that per-thread singletons (such as a per-thread root scheduler) be
// used. Off until useThreadLocalSingletons() is called.
void useThreadLocalSingletons();
bool hasThreadLocalSingletons();
// Accepted and ignored; kept so that older callers still build.
void threadSafePointerIs(bool);

// The number of auxiliary threads: threads that may legitimately act on another thread's
// scheduler tree, such as a diagnostic thread that prints statistics. While it is non-zero
// the schedulers' wrong-thread check stands down. Such a thread calls auxThreadCountInc()
// when it starts and auxThreadCountDec() when it is done; both are thread-safe.
uint32_t auxThreadCount();
void auxThreadCountInc();
void auxThreadCountDec();

}  // namespace Platform
}  // namespace Tarvo
