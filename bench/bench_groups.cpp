// Task groups and statistics beside their anchors, measured in one binary:
//   BM_GroupInnerRun      one inner task run inside a group's parent turn (1000 runs of a
//                         self-rescheduling task per turn, one loop pass per turn), per run
//   BM_GroupInnerRunThroughLoop  the same on the event-loop root
//   BM_PlainTaskThroughLoop      for contrast: a plain self-rescheduling task on the event-loop
//                         root, one loop pass per run, per run
//   BM_AsioPostChain      anchor: one handler of a Boost.Asio post chain
//   BM_PrintStatsRoot     the root's report of a tree of 10,000 tasks (half of them ran) into a
//                         discarding stream; reports the heap peak above the start and bytes
//   BM_ResetStatsSteps    an incremental reset of 100,000 tasks with the reset task's quantum
//                         given as the argument (µs); reports the median, 99th percentile and
//                         longest step (thread CPU time) and the steps per reset
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <new>
#include <ostream>
#include <streambuf>
#include <vector>

#include "AsioAnchor.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace {

// Heap accounting for the peak figure: bytes in use now and the highest since the last mark.
size_t heapInUse = 0;
size_t heapPeak = 0;

}  // namespace

__attribute__((noinline)) void* operator new(size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) {
    throw std::bad_alloc();
  }
  heapInUse += malloc_usable_size(p);
  heapPeak = std::max(heapPeak, heapInUse);
  return p;
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
  if (p) {
    heapInUse -= malloc_usable_size(p);
    std::free(p);
  }
}
void operator delete(void* p, size_t) noexcept {
  operator delete(p);
}

namespace {

using Tarvo::TaskPriority;
using namespace std::chrono_literals;

class Repeat : public Tarvo::Task {
 public:
  using Task::Task;
  void taskExecute() override {
    if (--left > 0) {
      scheduleTask();
    }
  }
  int left = 0;
};

class Empty : public Tarvo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

constexpr int kRunsPerTurn = 1000;

// The time of one run, with kRunsPerTurn runs in each iteration.
benchmark::Counter perRun() {
  return benchmark::Counter(
      kRunsPerTurn, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_GroupInnerRun(benchmark::State& state) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  auto group = Tarvo::TaskGroupIs("group", TaskPriority::normal, true, root);
  // The largest budget: a turn preempted on a busy machine still runs all its inner runs.
  group->taskGroupQuantumIs(1s);
  auto inner = std::make_shared<Repeat>(group, TaskPriority::normal, "inner");
  for (auto _ : state) {
    inner->left = kRunsPerTurn;
    inner->scheduleTask();
    root->runUntilIdle();
  }
  if (inner->taskRunCount() != state.iterations() * kRunsPerTurn ||
      group->parentTaskRunCount() != state.iterations()) {
    state.SkipWithError("a turn did not run all inner runs");
  }
  state.counters["per_inner_run"] = perRun();
}
BENCHMARK(BM_GroupInnerRun);

// Each iteration: kRunsPerTurn runs of `task` inside one call of the event loop; the time of
// one run is reported as `counter`.
void runThroughLoop(benchmark::State& state, Repeat& task, const char* counter) {
  for (auto _ : state) {
    task.left = kRunsPerTurn;
    task.scheduleTask();
    Tarvo::Platform::doEventLoop();
  }
  state.counters[counter] = perRun();
}

// The same on the event-loop root: one loop pass per turn of 1000 inner runs.
void BM_GroupInnerRunThroughLoop(benchmark::State& state) {
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  auto group = Tarvo::TaskGroupIs("group", TaskPriority::normal, true, root);
  // The largest budget: a turn preempted on a busy machine still runs all its inner runs.
  group->taskGroupQuantumIs(1s);
  auto inner = std::make_shared<Repeat>(group, TaskPriority::normal, "inner");
  runThroughLoop(state, *inner, "per_inner_run");
}
BENCHMARK(BM_GroupInnerRunThroughLoop);

// For contrast: a plain task that reschedules itself, one loop pass per run.
void BM_PlainTaskThroughLoop(benchmark::State& state) {
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  auto task = std::make_shared<Repeat>(root, TaskPriority::normal, "plain");
  runThroughLoop(state, *task, "per_run");
}
BENCHMARK(BM_PlainTaskThroughLoop);

// Counts what is written and keeps nothing.
class CountingBuf : public std::streambuf {
 public:
  size_t bytes = 0;

 protected:
  int_type overflow(int_type c) override {
    ++bytes;
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char*, std::streamsize n) override {
    bytes += static_cast<size_t>(n);
    return n;
  }
};

void BM_PrintStatsRoot(benchmark::State& state) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  auto group = Tarvo::TaskGroupIs("conns", TaskPriority::normal, true, root);
  std::vector<std::shared_ptr<Empty>> tasks;
  for (int i = 0; i < 10000; ++i) {
    tasks.push_back(
        std::make_shared<Empty>(i % 2 ? root : std::shared_ptr<Tarvo::TaskScheduler>(group),
                                TaskPriority::normal, "task" + std::to_string(i)));
    if (i % 4 < 2) {
      tasks.back()->scheduleTask();
    }
  }
  root->runUntilIdle();
  size_t peak = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    CountingBuf buf;
    std::ostream os(&buf);
    heapPeak = heapInUse;
    const size_t start = heapInUse;
    root->printStats(os, true, false, Tarvo::statsNoLimit, Tarvo::statsNoLimit, 100);
    peak = std::max(peak, heapPeak - start);
    bytes = buf.bytes;
  }
  state.counters["heap_peak_kB"] = benchmark::Counter(static_cast<double>(peak) / 1024);
  state.counters["report_kB"] = benchmark::Counter(static_cast<double>(bytes) / 1024);
}
BENCHMARK(BM_PrintStatsRoot)->Unit(benchmark::kMillisecond);

// The thread's CPU time: a step's own length, whatever else the shared machine runs.
std::chrono::nanoseconds threadCpuTime() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

void BM_ResetStatsSteps(benchmark::State& state) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  std::vector<std::shared_ptr<Empty>> tasks;
  for (int i = 0; i < 100000; ++i) {
    tasks.push_back(std::make_shared<Empty>(root, TaskPriority::normal, "task"));
  }
  root->resetStats();
  root->runUntilIdle();
  root->resetStatsTask()->taskQuantumIs(std::chrono::microseconds(state.range(0)));
  std::vector<std::chrono::nanoseconds> steps;
  steps.reserve(1 << 20);
  for (auto _ : state) {
    root->resetStats();
    while (root->resetStatsInProgress()) {
      const std::chrono::nanoseconds start = threadCpuTime();
      root->runOnce();
      steps.push_back(threadCpuTime() - start);
    }
    root->runUntilIdle();
  }
  std::sort(steps.begin(), steps.end());
  auto quantile = [&](double q) {
    return benchmark::Counter(
        static_cast<double>(
            steps[static_cast<size_t>(q * static_cast<double>(steps.size() - 1))].count()) /
        1e3);
  };
  state.counters["step_p50_us"] = quantile(0.5);
  state.counters["step_p99_us"] = quantile(0.99);
  state.counters["step_max_us"] = quantile(1.0);
  state.counters["steps_per_reset"] = benchmark::Counter(static_cast<double>(steps.size()) /
                                                         static_cast<double>(state.iterations()));
}
BENCHMARK(BM_ResetStatsSteps)->Arg(100)->Arg(20000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
