// The anchor of every event-loop figure: a raw libevent timer re-armed with a zero delay from
// its own callback, run as a chain of `links` expiries inside one dispatch.
#pragma once

#include <benchmark/benchmark.h>
#include <event2/event.h>

#include "Tarvo/LibeventFactory.h"

namespace Tarvo::Bench {

class RawZeroTimerChain {
 public:
  explicit RawZeroTimerChain(event_base* base)
      : base_(base), ev_(event_new(base, -1, 0, &RawZeroTimerChain::fire, this)) {}
  ~RawZeroTimerChain() { event_free(ev_); }
  RawZeroTimerChain(const RawZeroTimerChain&) = delete;
  RawZeroTimerChain& operator=(const RawZeroTimerChain&) = delete;

  // Runs `links` expiries and returns when the chain ends.
  void run(int links) {
    left_ = links;
    event_add(ev_, &kZero);
    event_base_dispatch(base_);
  }

 private:
  static constexpr timeval kZero{0, 0};

  static void fire(evutil_socket_t, short, void* arg) {
    auto* chain = static_cast<RawZeroTimerChain*>(arg);
    if (--chain->left_ > 0) {
      event_add(chain->ev_, &kZero);
    }
  }

  event_base* base_;
  event* ev_;
  int left_ = 0;
};

// Links per chain in the event-loop benchmarks.
constexpr int kChainLinks = 10000;

// The time of one link, for benchmarks whose iterations each run a chain of kChainLinks.
inline benchmark::Counter perLink() {
  return benchmark::Counter(
      kChainLinks, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The anchor benchmark itself, on a base made as a plain libevent program makes it
// (event_base_new(), libevent's default cached coarse clock), not on the library's base.
inline void rawZeroTimerAnchor(benchmark::State& state) {
  event_base* base = event_base_new();
  {
    RawZeroTimerChain chain(base);
    for (auto _ : state) {
      chain.run(kChainLinks);
    }
  }
  event_base_free(base);
  state.counters["per_link"] = perLink();
}

}  // namespace Tarvo::Bench
