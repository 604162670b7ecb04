// The machine-readable outputs beside the text they stand next to, in one binary:
//   BM_WriteTraceEvents/N     the history as Trace Event JSON, ring of N events full
//   BM_AnchorPrintHistory/N   anchor: the same history as the text listing (printHistory)
//   BM_WriteStatsJson/N       the statistics of a tree of N tasks (each run once, a tenth of
//                             them dead) as JSON
//   BM_AnchorPrintStats/N     anchor: the same statistics as the text report (printStats,
//                             without the history)
// Each reports the bytes written ("bytes_out") and the heap the write needed at its peak
// beyond what was allocated before it ("peak_heap_bytes"), counted by the allocation hooks
// below; the output string itself is reserved beforehand and not counted.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "Tarvo/TaskScheduler.h"

namespace {

std::atomic<size_t> liveHeap{0};
std::atomic<size_t> peakHeap{0};

void* counted(void* p) {
  if (!p) {
    throw std::bad_alloc();
  }
  size_t live =
      liveHeap.fetch_add(malloc_usable_size(p), std::memory_order_relaxed) + malloc_usable_size(p);
  size_t peak = peakHeap.load(std::memory_order_relaxed);
  while (live > peak && !peakHeap.compare_exchange_weak(peak, live, std::memory_order_relaxed)) {
  }
  return p;
}

// The replacements below pair operator new with malloc and operator delete with free.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void uncounted(void* p) noexcept {
  if (p) {
    liveHeap.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
    std::free(p);
  }
}

}  // namespace

void* operator new(size_t n) {
  return counted(std::malloc(n ? n : 1));
}
void* operator new[](size_t n) {
  return counted(std::malloc(n ? n : 1));
}
void operator delete(void* p) noexcept {
  uncounted(p);
}
void operator delete[](void* p) noexcept {
  uncounted(p);
}
void operator delete(void* p, size_t) noexcept {
  uncounted(p);
}
void operator delete[](void* p, size_t) noexcept {
  uncounted(p);
}
#pragma GCC diagnostic pop

namespace {

class Empty : public Tarvo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

// A root whose history ring (capacity `events`) is full of schedule/run events of 50 tasks.
std::shared_ptr<Tarvo::TaskSchedulerRootManual> rootWithFullHistory(unsigned events) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  root->historyEntryCountIs(events);
  static std::vector<std::shared_ptr<Empty>> tasks;
  tasks.clear();
  for (int i = 0; i < 50; ++i) {
    tasks.push_back(
        std::make_shared<Empty>(root, Tarvo::TaskPriority(i % 5), "task-" + std::to_string(i)));
  }
  while (root->history()->size() < events) {
    for (auto& t : tasks) {
      t->scheduleTask();
    }
    root->runUntilIdle();
  }
  return root;
}

// Runs `write` on a stream whose buffer is allocated beforehand and reports the counters.
template <typename Write>
void measureOutput(benchmark::State& state, Write write) {
  // One write before the timed ones sizes the buffer, so that no run counts its growth.
  std::ostringstream first;
  write(first);
  std::string buffer = std::move(first).str();
  size_t bytes = 0;
  size_t peak = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::ostringstream os(std::move(buffer));
    os.seekp(0);
    size_t base = liveHeap.load();
    peakHeap.store(base);
    state.ResumeTiming();
    write(os);
    state.PauseTiming();
    peak = std::max(peak, peakHeap.load() - base);
    bytes = static_cast<size_t>(os.tellp());
    buffer = std::move(os).str();
    state.ResumeTiming();
  }
  state.counters["bytes_out"] = static_cast<double>(bytes);
  state.counters["peak_heap_bytes"] = static_cast<double>(peak);
}

void BM_WriteTraceEvents(benchmark::State& state) {
  auto root = rootWithFullHistory(static_cast<unsigned>(state.range(0)));
  measureOutput(state, [&](std::ostream& os) { root->writeTraceEvents(os); });
}
BENCHMARK(BM_WriteTraceEvents)->Arg(100)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_AnchorPrintHistory(benchmark::State& state) {
  auto root = rootWithFullHistory(static_cast<unsigned>(state.range(0)));
  measureOutput(state, [&](std::ostream& os) {
    root->printHistory(os, Tarvo::TaskSchedulerHistory::noLimit);
  });
}
BENCHMARK(BM_AnchorPrintHistory)->Arg(100)->Arg(100000)->Unit(benchmark::kMicrosecond);

// A root with `count` tasks that ran once each; every tenth has died, under a name of its own.
std::shared_ptr<Tarvo::TaskSchedulerRootManual> rootWithTasks(
    int count, std::vector<std::shared_ptr<Empty>>& live) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  live.clear();
  for (int i = 0; i < count; ++i) {
    auto t = std::make_shared<Empty>(root, Tarvo::TaskPriority(i % 5), "task-" + std::to_string(i));
    t->scheduleTask();
    root->runUntilIdle();
    if (i % 10 != 0) {
      live.push_back(std::move(t));
    }
  }
  return root;
}

void BM_WriteStatsJson(benchmark::State& state) {
  std::vector<std::shared_ptr<Empty>> live;
  auto root = rootWithTasks(static_cast<int>(state.range(0)), live);
  measureOutput(state, [&](std::ostream& os) { root->writeStatsJson(os); });
}
BENCHMARK(BM_WriteStatsJson)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_AnchorPrintStats(benchmark::State& state) {
  std::vector<std::shared_ptr<Empty>> live;
  auto root = rootWithTasks(static_cast<int>(state.range(0)), live);
  measureOutput(state, [&](std::ostream& os) {
    root->printStats(os, true, false, Tarvo::statsNoLimit, Tarvo::statsNoLimit, 0);
  });
}
BENCHMARK(BM_AnchorPrintStats)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
