// Timer tasks beside raw libevent in the same binary:
//  - a timer task that re-arms itself with a zero delay from its own run, through the real
//    event loop, against a raw libevent timer re-armed with a zero delay from its callback
//    (each iteration a chain of kChainLinks links, "per_link" one link);
//  - one timer task re-armed with a non-zero delay while N other timer tasks are armed,
//    against event_add re-arming one pending event with N other events pending (per re-arm);
//  - the heap bytes each armed timer task holds, beside a raw libevent timer event.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <malloc.h>

#include <chrono>
#include <memory>
#include <vector>

#include "LibeventAnchor.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace {

using namespace std::chrono_literals;
using Tarvo::Bench::kChainLinks;
using Tarvo::Bench::perLink;

BENCHMARK(Tarvo::Bench::rawZeroTimerAnchor)->Name("BM_AnchorRawLibeventZeroTimer");

class ZeroDelayChain : public Tarvo::TimerTask {
 public:
  using TimerTask::TimerTask;
  int left = 0;
  void taskExecute() override {
    if (--left > 0) {
      scheduleTaskDelay(0ns);
    }
  }
};

class Idle : public Tarvo::TimerTask {
 public:
  using TimerTask::TimerTask;
  void taskExecute() override {}
};

void BM_TimerTaskZeroDelayChain(benchmark::State& state) {
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  auto task = std::make_shared<ZeroDelayChain>(root, Tarvo::TaskPriority::normal, "chain");
  for (auto _ : state) {
    task->left = kChainLinks;
    task->scheduleTaskDelay(0.0);
    Tarvo::Platform::doEventLoop();
  }
  state.counters["per_link"] = perLink();
}
BENCHMARK(BM_TimerTaskZeroDelayChain);

// The other timers expire between 1000 and 2000 seconds from now, and the measured one is
// re-armed for 1500 seconds: it lands in the middle of them, as a periodic timer among
// others of similar periods does. Nothing expires while the benchmark runs.
constexpr double kRearmSeconds = 1500.0;
double otherDelay(int64_t i, int64_t n) {
  return 1000.0 + 1000.0 * static_cast<double>(i) / static_cast<double>(n);
}

void BM_AnchorRawEventAddRearm(benchmark::State& state) {
  Tarvo::leInit();
  event_base* base = Tarvo::leBase();
  auto noop = [](evutil_socket_t, short, void*) {};
  std::vector<event*> others;
  for (int64_t i = 0; i < state.range(0); ++i) {
    others.push_back(event_new(base, -1, 0, noop, nullptr));
    double d = otherDelay(i, state.range(0));
    timeval tv{static_cast<time_t>(d),
               static_cast<suseconds_t>((d - static_cast<time_t>(d)) * 1e6)};
    event_add(others.back(), &tv);
  }
  event* ev = event_new(base, -1, 0, noop, nullptr);
  const timeval rearm{static_cast<time_t>(kRearmSeconds), 0};
  for (auto _ : state) {
    event_add(ev, &rearm);
  }
  event_free(ev);
  for (event* e : others) {
    event_free(e);
  }
}
BENCHMARK(BM_AnchorRawEventAddRearm)->Arg(0)->Arg(100)->Arg(10000);

void BM_TimerTaskRearm(benchmark::State& state) {
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  std::vector<std::shared_ptr<Idle>> others;
  for (int64_t i = 0; i < state.range(0); ++i) {
    others.push_back(std::make_shared<Idle>(root, Tarvo::TaskPriority::normal, "other"));
    others.back()->scheduleTaskDelay(otherDelay(i, state.range(0)));
  }
  auto task = std::make_shared<Idle>(root, Tarvo::TaskPriority::normal, "periodic");
  for (auto _ : state) {
    task->scheduleTaskDelay(kRearmSeconds);
  }
}
BENCHMARK(BM_TimerTaskRearm)->Arg(0)->Arg(100)->Arg(10000);

// Heap bytes in use per armed timer task (task, the root's record, its timer control and
// libevent event), from the allocator's own count over 10,000 of them.
void BM_HeapBytesPerArmedTimerTask(benchmark::State& state) {
  constexpr int kTasks = 10000;
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  double perTask = 0;
  for (auto _ : state) {
    std::vector<std::shared_ptr<Idle>> tasks;
    tasks.reserve(kTasks);
    size_t before = mallinfo2().uordblks;
    for (int i = 0; i < kTasks; ++i) {
      tasks.push_back(std::make_shared<Idle>(root, Tarvo::TaskPriority::normal, "armed"));
      tasks.back()->scheduleTaskDelay(otherDelay(i, kTasks));
    }
    perTask = static_cast<double>(mallinfo2().uordblks - before) / kTasks;
  }
  state.counters["heap_bytes_per_task"] = perTask;
}
BENCHMARK(BM_HeapBytesPerArmedTimerTask)->Iterations(1);

void BM_AnchorHeapBytesPerRawEvent(benchmark::State& state) {
  constexpr int kEvents = 10000;
  Tarvo::leInit();
  auto noop = [](evutil_socket_t, short, void*) {};
  double perEvent = 0;
  for (auto _ : state) {
    std::vector<event*> events;
    events.reserve(kEvents);
    size_t before = mallinfo2().uordblks;
    for (int i = 0; i < kEvents; ++i) {
      events.push_back(event_new(Tarvo::leBase(), -1, 0, noop, nullptr));
      double d = otherDelay(i, kEvents);
      timeval tv{static_cast<time_t>(d), 0};
      event_add(events.back(), &tv);
    }
    perEvent = static_cast<double>(mallinfo2().uordblks - before) / kEvents;
    for (event* e : events) {
      event_free(e);
    }
  }
  state.counters["heap_bytes_per_event"] = perEvent;
}
BENCHMARK(BM_AnchorHeapBytesPerRawEvent)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
