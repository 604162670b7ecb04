// The scheduler root on the real event loop, beside raw libevent in the same binary:
//  - a task that reschedules itself, one run per loop pass, against a raw libevent timer
//    re-armed with a zero delay from its own callback (the same loop work with no scheduler);
//  - the same with 10,000 idle tasks registered: the per-run cost must not depend on them.
// Each iteration runs a chain of kChainLinks runs inside one loop call; "per_link" is one link.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "LibeventAnchor.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace {

using Tarvo::Bench::kChainLinks;
using Tarvo::Bench::perLink;

BENCHMARK(Tarvo::Bench::rawZeroTimerAnchor)->Name("BM_AnchorRawLibeventZeroTimer");

class Rescheduling : public Tarvo::Task {
 public:
  using Task::Task;
  int left = 0;
  void taskExecute() override {
    if (--left > 0) {
      scheduleTask();
    }
  }
};

class Idle : public Tarvo::Task {
 public:
  using Task::Task;
  void taskExecute() override {}
};

void BM_SelfReschedulingTask(benchmark::State& state) {
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  std::vector<std::shared_ptr<Idle>> idle;
  for (int64_t i = 0; i < state.range(0); ++i) {
    idle.push_back(std::make_shared<Idle>(root, Tarvo::TaskPriority::normal, "idle"));
  }
  auto task = std::make_shared<Rescheduling>(root, Tarvo::TaskPriority::normal, "busy");
  for (auto _ : state) {
    task->left = kChainLinks;
    task->scheduleTask();
    Tarvo::Platform::doEventLoop();
  }
  state.counters["per_link"] = perLink();
}
BENCHMARK(BM_SelfReschedulingTask)->Arg(0)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
