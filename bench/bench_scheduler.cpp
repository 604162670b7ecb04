// Scheduler hot-path costs beside their anchors, measured in one binary:
//   BM_ScheduleRunEmptyTask   one schedule, pick and run of an empty task, history on, driven
//                             without an event loop (TaskSchedulerRootManual)
//   BM_LibeventZeroTimer      anchor: one loop iteration of a zero-delay libevent timer that
//                             re-arms itself from its own callback
//   BM_AsioPostChain          anchor: one handler of a Boost.Asio post chain
//   BM_SteadyClockRead        anchor: one read of the steady clock
//   BM_TaskClockRead          one read of the scheduler's clock (a scheduled, picked and run
//                             task takes three: scheduled, run start, run end)
//   BM_HistoryInsert          one history event
//   BM_TraceMaskTest          anchor: a plain `if (mask & bit)`
//   BM_TaskLifecycle          a task created, run once and destroyed under one name; reports
//                             heap bytes per live task and checks that one dead record remains
#include <benchmark/benchmark.h>
#include <event2/event.h>

#include <malloc.h>

#include <vector>

#include "AsioAnchor.h"
#include "Tarvo/TaskScheduler.h"

namespace {

using Tarvo::TaskPriority;

class SelfScheduling : public Tarvo::Task {
 public:
  using Task::Task;
  void taskExecute() override { scheduleTask(); }
};

class Empty : public Tarvo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

void BM_ScheduleRunEmptyTask(benchmark::State& state) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  auto task = std::make_shared<SelfScheduling>(root, TaskPriority::normal, "empty");
  task->scheduleTask();
  for (auto _ : state) {
    root->runOnce();
  }
  task->unscheduleTask();
}
BENCHMARK(BM_ScheduleRunEmptyTask);

void rearm(evutil_socket_t, short, void* arg) {
  static const timeval zero{0, 0};
  event_add(static_cast<event*>(arg), &zero);
}

void BM_LibeventZeroTimer(benchmark::State& state) {
  event_base* base = event_base_new();
  event* ev = event_new(base, -1, 0, nullptr, nullptr);
  event_assign(ev, base, -1, 0, rearm, ev);
  rearm(-1, 0, ev);
  for (auto _ : state) {
    event_base_loop(base, EVLOOP_ONCE);
  }
  event_free(ev);
  event_base_free(base);
}
BENCHMARK(BM_LibeventZeroTimer);

void BM_SteadyClockRead(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::chrono::steady_clock::now());
  }
}
BENCHMARK(BM_SteadyClockRead);

void BM_TaskClockRead(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(Tarvo::TaskClock::now());
  }
}
BENCHMARK(BM_TaskClockRead);

void BM_HistoryInsert(benchmark::State& state) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  auto task = std::make_shared<Empty>(root, TaskPriority::normal, "empty");
  Tarvo::TaskSchedulerHistory& history = *root->history();
  const Tarvo::TaskTimePoint when = Tarvo::TaskClock::now();
  for (auto _ : state) {
    history.insert(when, Tarvo::TaskSchedulerEventType::schedule, task.get());
  }
}
BENCHMARK(BM_HistoryInsert);

void BM_TraceMaskTest(benchmark::State& state) {
  volatile uint32_t mask = 0x3;
  uint64_t hits = 0;
  for (auto _ : state) {
    if (mask & (1u << 8)) {
      ++hits;
    }
    benchmark::DoNotOptimize(hits);
  }
}
BENCHMARK(BM_TraceMaskTest);

void BM_TaskLifecycle(benchmark::State& state) {
  auto root = std::make_shared<Tarvo::TaskSchedulerRootManual>("bench");
  uint64_t tasks = 0;
  for (auto _ : state) {
    auto task = std::make_shared<Empty>(root, TaskPriority::normal, "connection");
    task->scheduleTask();
    root->runUntilIdle();
    ++tasks;
  }
  std::vector<Tarvo::TaskStat> dead;
  root->getDeadTaskStats(&dead, true);
  if (dead.size() != 1 || dead[0].taskDeadCount() != tasks) {
    state.SkipWithError("dead-task table does not hold exactly one record for all tasks");
  }
  // Heap held per live task: keep a batch alive and compare the allocator's bytes in use.
  constexpr int kLive = 10000;
  std::vector<std::shared_ptr<Empty>> live;
  live.reserve(kLive);
  size_t before = mallinfo2().uordblks;
  for (int i = 0; i < kLive; ++i) {
    live.push_back(std::make_shared<Empty>(root, TaskPriority::normal, "connection"));
  }
  size_t after = mallinfo2().uordblks;
  state.counters["heap_bytes_per_live_task"] =
      benchmark::Counter(static_cast<double>(after - before) / kLive);
  state.counters["sizeof_task"] = benchmark::Counter(sizeof(Empty));
}
BENCHMARK(BM_TaskLifecycle)->Iterations(1000000);

}  // namespace

BENCHMARK_MAIN();
