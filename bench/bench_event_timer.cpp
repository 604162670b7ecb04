// Zero-delay timer re-arm and callback request chains through the libevent controls, beside
// the same chain on raw libevent in the same binary. Each benchmark iteration runs a chain of
// kChainLinks expiries inside one loop call; "per_link" is the time of one link.
#include <event2/event.h>

#include <benchmark/benchmark.h>

#include "LibeventAnchor.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"

namespace {

using Tarvo::Bench::kChainLinks;
using Tarvo::Bench::perLink;

BENCHMARK(Tarvo::Bench::rawZeroTimerAnchor)->Name("BM_AnchorRawLibeventZeroTimer");

struct TimerChain : Tarvo::Platform::TimeoutHandler {
  std::shared_ptr<Tarvo::Platform::TimerControl> control;
  int left = 0;
  void timeout() override {
    if (--left > 0) {
      control->setTimeout(0);
    }
  }
};

void BM_TimerControlZeroReArm(benchmark::State& state) {
  TimerChain chain;
  chain.control = Tarvo::Platform::getTimerControl(&chain);
  for (auto _ : state) {
    chain.left = kChainLinks;
    chain.control->setTimeout(0);
    Tarvo::Platform::doEventLoop();
  }
  state.counters["per_link"] = perLink();
}
BENCHMARK(BM_TimerControlZeroReArm);

struct CallbackChain : Tarvo::Platform::CallbackHandler {
  std::shared_ptr<Tarvo::Platform::CallbackControl> control;
  int left = 0;
  void callback() override {
    if (--left > 0) {
      control->requestCallback();
    }
  }
};

void BM_CallbackControlChain(benchmark::State& state) {
  CallbackChain chain;
  chain.control = Tarvo::Platform::getCallbackControl(&chain);
  for (auto _ : state) {
    chain.left = kChainLinks;
    chain.control->requestCallback();
    Tarvo::Platform::doEventLoop();
  }
  state.counters["per_link"] = perLink();
}
BENCHMARK(BM_CallbackControlChain);

}  // namespace

BENCHMARK_MAIN();
