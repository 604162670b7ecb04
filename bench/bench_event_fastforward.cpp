// One fast-forward step (find the earliest timer, move every timer and the virtual clock,
// fire) with N other timers pending, beside the anchor: one raw libevent zero-delay timer
// expiry with the same N timers pending on the same base.
#include <event2/event.h>

#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"

namespace {

struct EventFree {
  void operator()(event* ev) const { event_free(ev); }
};

// N timers far enough away never to fire during the run. Their expiries are a permutation of
// the order in which they were allocated, so that the timer heap's order is not their order in
// memory, as with timers armed by a running program.
std::vector<std::unique_ptr<event, EventFree>> farTimers(int count) {
  Tarvo::leInit();
  std::vector<std::unique_ptr<event, EventFree>> timers;
  for (int i = 0; i < count; ++i) {
    timers.emplace_back(event_new(
        Tarvo::leBase(), -1, 0, [](evutil_socket_t, short, void*) {}, nullptr));
    const timeval far{100000000 + static_cast<time_t>(i) * 7919 % count, 0};
    event_add(timers.back().get(), &far);
  }
  return timers;
}

void BM_RawZeroTimerWithPending(benchmark::State& state) {
  auto timers = farTimers(static_cast<int>(state.range(0)));
  event_base* base = Tarvo::leBase();
  event* ev = event_new(
      base, -1, 0, [](evutil_socket_t, short, void*) {}, nullptr);
  const timeval zero{0, 0};
  for (auto _ : state) {
    event_add(ev, &zero);
    event_base_loop(base, EVLOOP_ONCE);
  }
  event_free(ev);
}
BENCHMARK(BM_RawZeroTimerWithPending)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);

struct Counter : Tarvo::Platform::TimeoutHandler {
  long fired = 0;
  void timeout() override { ++fired; }
};

void BM_FastForwardStepWithPending(benchmark::State& state) {
  auto timers = farTimers(static_cast<int>(state.range(0)));
  Tarvo::Platform::setFastForward(true);
  Counter counter;
  auto control = Tarvo::Platform::getTimerControl(&counter);
  for (auto _ : state) {
    control->setTimeout(1.0);
    Tarvo::Platform::doEventLoopInWaitfor(10.0);
  }
  Tarvo::Platform::setFastForward(false);
  if (counter.fired != static_cast<long>(state.iterations())) {
    state.SkipWithError("a step did not fire its timer");
  }
}
BENCHMARK(BM_FastForwardStepWithPending)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
