// The scheduling hot path must not allocate: this binary counts every operator new.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>

#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTestSupport.h"

static std::atomic<uint64_t> allocations{0};

// None of the replacements is inlined: GCC 12 takes an inlined malloc() or free() meeting the
// other side of the pair for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) {
    return p;
  }
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace Tarvo {
namespace {

using Test::FnTask;
using Test::FnTimer;

TEST(NoAllocationTest, ScheduleUnschedulePickRunAndHistoryInsertAllocateNothing) {
  auto root = std::make_shared<TaskSchedulerRootManual>("root");
  auto busy = std::make_shared<FnTask>(root, TaskPriority::high, "busy", [](FnTask& t) {
    if (t.runs % 20) {
      t.scheduleTask();
    }
  });
  auto other = std::make_shared<FnTask>(root, TaskPriority::low, "other");
  busy->scheduleTask();
  root->runUntilIdle();  // warm-up: lazily created trace handler and the like
  uint64_t before = allocations.load();
  for (int round = 0; round < 100; ++round) {
    busy->scheduleTask();
    other->scheduleTask();
    other->unscheduleTask();
    other->scheduleTask();
    root->runUntilIdle();
    root->history()->insert(TaskClock::now(), TaskSchedulerEventType::timerStart, busy.get());
  }
  EXPECT_EQ(allocations.load() - before, 0u);
  EXPECT_EQ(other->runs, 100);
  EXPECT_EQ(busy->runs, 2020);
  // The count is live: creating a task does allocate.
  std::make_shared<FnTask>(root, TaskPriority::low, "created");
  EXPECT_GT(allocations.load() - before, 0u);
}

TEST(NoAllocationTest, ArmingAndStoppingATimerTaskOnTheEventLoopRootAllocateNothing) {
  auto root = schedulerRootTarvoNonShared("loop");
  auto timer = std::make_shared<FnTimer>(root, "timer");
  timer->scheduleTaskDelay(1.0);
  uint64_t before = allocations.load();
  for (int round = 0; round < 100; ++round) {
    timer->scheduleTaskDelay(2.0 + round);
    timer->scheduleTaskDelay(std::chrono::seconds(1));
    timer->scheduleTaskLowestDelay(0.5);
    timer->scheduleTaskJitterUp(3.0, 10);
    timer->scheduleTaskJitterDown(std::chrono::seconds(3), 10);
    timer->stopTimerTask();
  }
  EXPECT_EQ(allocations.load() - before, 0u);
  EXPECT_FALSE(timer->taskScheduled());
}

}  // namespace
}  // namespace Tarvo
