#include "platform/EventBaseTimeouts.h"

#include <event2/event.h>
#include <event2/event_struct.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

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
  std::pair<bool, timeval> first{false, {}};
  event_base_foreach_event(base, earliest, &first);
  if (!first.first) {
    return -1;
  }
  *out = first.second;
  return 0;
}

int event_base_timeout_subtract_offset(event_base* base, const timeval* offset) {
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
