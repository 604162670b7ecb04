#include "platform/EventBaseTimeouts.h"

#include <event2/event.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace {

double seconds(const timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

// A private base whose timers append their index to `fired` when they run.
class TimerBase {
 public:
  ~TimerBase() {
    for (event* ev : events_) {
      event_free(ev);
    }
    event_base_free(base_);
  }
  event* add(long sec, short flags = 0, long usec = 0) {
    auto fire = [](evutil_socket_t, short, void* index) {
      fired.push_back(static_cast<int>(reinterpret_cast<intptr_t>(index)));
    };
    events_.push_back(event_new(base_, -1, flags, fire, reinterpret_cast<void*>(events_.size())));
    const timeval delay{sec, usec};
    event_add(events_.back(), &delay);
    return events_.back();
  }
  double expiry(const event* ev) const {
    timeval tv;
    EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &tv));
    return seconds(tv);
  }
  event_base* base() const { return base_; }
  static inline std::vector<int> fired;

 private:
  event_base* base_ = event_base_new();
  std::vector<event*> events_;
};

TEST(EventBaseTimeouts, FirstTimeoutIsTheEarliestPendingTimerOrNone) {
  TimerBase timers;
  timeval first{123, 456};
  EXPECT_NE(event_base_get_first_timeout(timers.base(), &first), 0);
  EXPECT_EQ(first.tv_sec, 123);

  timers.add(50);
  event* soonest = timers.add(2);
  timers.add(7);
  event_del(timers.add(1));
  ASSERT_EQ(event_base_get_first_timeout(timers.base(), &first), 0);
  EXPECT_DOUBLE_EQ(seconds(first), timers.expiry(soonest));
}

TEST(EventBaseTimeouts, SubtractionKeepsOrderAndPastTimersFireAtOnce) {
  TimerBase timers;
  TimerBase::fired.clear();
  std::vector<event*> events = {timers.add(30), timers.add(10), timers.add(20), timers.add(9000)};
  event* periodic = timers.add(10, EV_PERSIST);
  std::vector<double> before;
  for (event* ev : events) {
    before.push_back(timers.expiry(ev));
  }
  double periodicBefore = timers.expiry(periodic);

  const timeval offset{25, 500000};
  ASSERT_EQ(event_base_timeout_subtract_offset(timers.base(), &offset), 0);
  for (size_t i = 0; i < events.size(); ++i) {
    EXPECT_NEAR(timers.expiry(events[i]), before[i] - 25.5, 0.01) << "timer " << i;
  }
  // Persistent timed events cannot be moved without changing their period.
  EXPECT_DOUBLE_EQ(timers.expiry(periodic), periodicBefore);

  // Two of them are now in the past, one 4.5 s ahead.
  event_base_loop(timers.base(), EVLOOP_NONBLOCK);
  EXPECT_EQ(TimerBase::fired, (std::vector<int>{1, 2}));
  const timeval rest{5, 0};
  ASSERT_EQ(event_base_timeout_subtract_offset(timers.base(), &rest), 0);
  event_base_loop(timers.base(), EVLOOP_NONBLOCK);
  EXPECT_EQ(TimerBase::fired, (std::vector<int>{1, 2, 0}));
}

// Re-arming thousands of timers outside the loop takes long enough for libevent's coarse
// clock to tick in between; timers a microsecond apart must still keep their order.
TEST(EventBaseTimeouts, OrderSurvivesTheClockMovingDuringSubtraction) {
  TimerBase timers;
  TimerBase::fired.clear();
  const int count = 20000;
  for (int i = 0; i < count; ++i) {
    timers.add(100, 0, i);
  }
  const timeval step{9, 0};
  for (int round = 0; round < 12; ++round) {
    ASSERT_EQ(event_base_timeout_subtract_offset(timers.base(), &step), 0);
  }
  event_base_dispatch(timers.base());
  ASSERT_EQ(TimerBase::fired.size(), static_cast<size_t>(count));
  EXPECT_TRUE(std::is_sorted(TimerBase::fired.begin(), TimerBase::fired.end()));
}

}  // namespace
