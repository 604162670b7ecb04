// The anchor of every event-loop figure: a raw libevent timer re-armed with a zero delay from
// its own callback, run as a chain of `links` expiries inside one dispatch.
#pragma once

#include <event2/event.h>

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

}  // namespace Tarvo::Bench
