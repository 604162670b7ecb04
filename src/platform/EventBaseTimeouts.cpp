#include "platform/EventBaseTimeouts.h"

#include <event2/event.h>
#include <event2/event_struct.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

// ---- In place, on libevent 2.1's own bookkeeping ----
//
// libevent 2.1 keeps a pending timer either in the base's min-heap, ordered by
// `ev_timeout` (the base's monotonic clock), with its heap slot in
// `ev_timeout_pos.min_heap_idx`; or in a common-timeout queue, where `ev_timeout.tv_usec`
// carries the queue's marker in the bits above the microseconds and each queue has an internal
// timer in the heap that expires with the queue's head. Every such event has EVLIST_TIMEOUT
// among its flags, and event_base_foreach_event visits each added event once, libevent's
// internal ones included. Both fields are in the public `struct event`; what they mean is
// 2.1's, hence the version check.

constexpr suseconds_t kMicrosecondBits = 0x000fffff;
constexpr suseconds_t kCommonTimeoutMask = 0xf0000000;
constexpr suseconds_t kCommonTimeoutMagic = 0x50000000;

bool timerLayoutKnown() {
  static const bool known =
      (LIBEVENT_VERSION_NUMBER >> 16) == 0x0201 && (event_get_version_number() >> 16) == 0x0201;
  return known;
}

bool timerPending(const event* ev) {
  return ev->ev_evcallback.evcb_flags & EVLIST_TIMEOUT;
}

// The heap's top is the earliest timer: a common-timeout queue's head expires no sooner than
// the queue's internal timer, which is in the heap. A non-empty heap always has a top, so a
// walk that finds none has found no timer at all.
int heapTop(const event_base*, const event* ev, void* arg) {
  if (timerPending(ev) && (ev->ev_timeout.tv_usec & kCommonTimeoutMask) != kCommonTimeoutMagic &&
      ev->ev_timeout_pos.min_heap_idx == 0) {
    *static_cast<const event**>(arg) = ev;
    return 1;
  }
  return 0;
}

// Moves one expiry `offset` earlier, keeping a common-timeout queue's marker bits. Every heap
// entry and every queue entry moves by the same amount, so the heap stays a heap and each
// queue stays sorted; nothing is re-linked. Only keys change, which the walk that calls this
// does not look at. The offset is a span, the same on the monotonic scale of `ev_timeout` as
// on the wall-clock scale that event_pending() reports, and no clock is read, so the time
// libevent caches during a loop pass plays no part.
int shiftExpiry(const event_base*, const event* ev, void* arg) {
  if (ev->ev_evcallback.evcb_flags & EVLIST_TIMEOUT) {
    // Plain arithmetic on values rather than timersub() on addresses: this runs once per
    // pending timer per step, and in sanitizer builds every access through an address is
    // checked.
    const timeval offset = *static_cast<const timeval*>(arg);
    timeval& expiry = const_cast<event*>(ev)->ev_timeout;
    const suseconds_t usec = expiry.tv_usec;
    suseconds_t micros = (usec & kMicrosecondBits) - offset.tv_usec;
    time_t secs = expiry.tv_sec - offset.tv_sec;
    if (micros < 0) {
      micros += 1000000;
      --secs;
    }
    expiry.tv_sec = secs;
    expiry.tv_usec = micros | (usec & ~kMicrosecondBits);
  }
  return 0;
}

// ---- Through the public interface, for other libevent versions ----

struct PendingTimer {
  struct event* ev;
  timeval expiry;
};

int earliest(const event_base*, const event* ev, void* arg) {
  timeval expiry;
  if (event_pending(ev, EV_TIMEOUT, &expiry) & EV_TIMEOUT) {
    auto* first = static_cast<std::pair<bool, timeval>*>(arg);
    if (!first->first || timercmp(&expiry, &first->second, <)) {
      *first = {true, expiry};
    }
  }
  return 0;
}

int collect(const event_base*, const event* ev, void* arg) {
  timeval expiry;
  if ((event_pending(ev, EV_TIMEOUT, &expiry) & EV_TIMEOUT) &&
      !(event_get_events(ev) & EV_PERSIST)) {
    // The base is not modified while it is being walked; the timers are re-armed after.
    static_cast<std::vector<PendingTimer>*>(arg)->push_back({const_cast<event*>(ev), expiry});
  }
  return 0;
}

// Re-arms each timer `offset` before its collected expiry, measured from `now`. The new delay
// may be negative; libevent keeps such a timer in expiry order and treats it as due.
int rearm(const std::vector<PendingTimer>& timers, const timeval& offset, const timeval& now) {
  int result = 0;
  for (const PendingTimer& timer : timers) {
    timeval expiry;
    timeval delay;
    timersub(&timer.expiry, &offset, &expiry);
    timersub(&expiry, &now, &delay);
    if (event_add(timer.ev, &delay) != 0) {
      result = -1;
    }
  }
  return result;
}

}  // namespace

extern "C" {

int tarvo_event_base_now(event_base* base, timeval* out) {
  event probe;
  const timeval zero{0, 0};
  if (event_assign(&probe, base, -1, 0, nullptr, nullptr) != 0 || event_add(&probe, &zero) != 0) {
    return -1;
  }
  event_pending(&probe, EV_TIMEOUT, out);
  event_del(&probe);
  return 0;
}

int event_base_get_first_timeout(event_base* base, timeval* out) {
  if (timerLayoutKnown()) {
    return tarvo_event_base_first_timeout_in_place(base, out);
  }
  return tarvo_event_base_first_timeout_by_walk(base, out);
}

int event_base_timeout_subtract_offset(event_base* base, const timeval* offset) {
  if (timerLayoutKnown()) {
    return tarvo_event_base_subtract_in_place(base, offset);
  }
  return tarvo_event_base_subtract_by_rearm(base, offset);
}

int tarvo_event_base_first_timeout_in_place(event_base* base, timeval* out) {
  const event* top = nullptr;
  event_base_foreach_event(base, heapTop, &top);
  if (top == nullptr) {
    return -1;
  }
  event_pending(top, EV_TIMEOUT, out);
  return 0;
}

int tarvo_event_base_subtract_in_place(event_base* base, const timeval* offset) {
  timeval shift = *offset;
  event_base_foreach_event(base, shiftExpiry, &shift);
  return 0;
}

int tarvo_event_base_first_timeout_by_walk(event_base* base, timeval* out) {
  std::pair<bool, timeval> first{false, {}};
  event_base_foreach_event(base, earliest, &first);
  if (!first.first) {
    return -1;
  }
  *out = first.second;
  return 0;
}

int tarvo_event_base_subtract_by_rearm(event_base* base, const timeval* offset) {
  // Reused so that repeated advances do not allocate once it has grown.
  thread_local std::vector<PendingTimer> timers;
  timers.clear();
  event_base_foreach_event(base, collect, &timers);
  if (timers.empty()) {
    return 0;
  }
  timeval before;
  timeval after;
  if (tarvo_event_base_now(base, &before) != 0 || rearm(timers, *offset, before) != 0 ||
      tarvo_event_base_now(base, &after) != 0) {
    return -1;
  }
  if (timercmp(&before, &after, ==)) {
    return 0;
  }
  // The clock moved while the timers were re-armed (outside the loop every event_add reads
  // it afresh), so a timer re-armed later landed later than computed and may have passed
  // one that expires just after it. Re-armed in expiry order, that drift can only grow with
  // the expiry, which keeps the order.
  std::sort(timers.begin(), timers.end(), [](const PendingTimer& a, const PendingTimer& b) {
    return timercmp(&a.expiry, &b.expiry, <);
  });
  if (tarvo_event_base_now(base, &before) != 0) {
    return -1;
  }
  return rearm(timers, *offset, before);
}

}  // extern "C"
