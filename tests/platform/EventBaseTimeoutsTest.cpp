#include "platform/EventBaseTimeouts.h"

#include <event2/event.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct BaseFree {
  void operator()(event_base* base) const { event_base_free(base); }
};
struct EventFree {
  void operator()(event* ev) const { event_free(ev); }
};
using BasePtr = std::unique_ptr<event_base, BaseFree>;
using EventPtr = std::unique_ptr<event, EventFree>;

timeval tv(long sec, long usec = 0) {
  return timeval{sec, usec};
}

double seconds(const timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

double expiryOf(const event* ev) {
  timeval expiry;
  EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &expiry) & EV_TIMEOUT);
  return seconds(expiry);
}

// Timers that record their index in `fired` when they run.
class Timers {
 public:
  explicit Timers(event_base* base) : base_(base) {}

  event* add(const timeval& delay, short flags = 0) {
    auto* entry = new Entry{this, static_cast<int>(entries_.size()), nullptr};
    entries_.emplace_back(entry);
    entry->ev.reset(event_new(base_, -1, flags, &Timers::fire, entry));
    event_add(entry->ev.get(), &delay);
    return entry->ev.get();
  }
  std::vector<int> fired;

 private:
  struct Entry {
    Timers* owner;
    int index;
    EventPtr ev;
  };
  static void fire(evutil_socket_t, short, void* arg) {
    auto* entry = static_cast<Entry*>(arg);
    entry->owner->fired.push_back(entry->index);
  }
  event_base* base_;
  std::vector<std::unique_ptr<Entry>> entries_;
};

TEST(EventBaseTimeouts, FirstTimeoutIsTheEarliestPendingTimer) {
  BasePtr base(event_base_new());
  Timers timers(base.get());
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  // A descriptor event without a timeout is not a timer.
  EventPtr reader(event_new(
      base.get(), fds[0], EV_READ | EV_PERSIST, [](int, short, void*) {}, nullptr));
  event_add(reader.get(), nullptr);

  timers.add(tv(50));
  event* soonest = timers.add(tv(2, 250000));
  timers.add(tv(7));
  event* deleted = timers.add(tv(1));
  event_del(deleted);

  timeval first;
  ASSERT_EQ(event_base_get_first_timeout(base.get(), &first), 0);
  double soonestExpiry = expiryOf(soonest);
  EXPECT_DOUBLE_EQ(seconds(first), soonestExpiry);

  event_del(soonest);
  ASSERT_EQ(event_base_get_first_timeout(base.get(), &first), 0);
  EXPECT_NEAR(seconds(first), soonestExpiry + 4.75, 0.05);
  close(fds[0]);
  close(fds[1]);
}

TEST(EventBaseTimeouts, NoPendingTimerLeavesTheOutputAlone) {
  BasePtr base(event_base_new());
  timeval out = tv(123, 456);
  EXPECT_NE(event_base_get_first_timeout(base.get(), &out), 0);

  Timers timers(base.get());
  event* ev = timers.add(tv(3));
  event_del(ev);
  EXPECT_NE(event_base_get_first_timeout(base.get(), &out), 0);
  EXPECT_EQ(out.tv_sec, 123);
  EXPECT_EQ(out.tv_usec, 456);

  // Subtracting from a base without timers changes nothing and succeeds.
  timeval offset = tv(1);
  EXPECT_EQ(event_base_timeout_subtract_offset(base.get(), &offset), 0);
}

TEST(EventBaseTimeouts, SubtractionMovesEveryTimerAndKeepsTheirOrder) {
  BasePtr base(event_base_new());
  Timers timers(base.get());
  std::vector<event*> events = {timers.add(tv(30)), timers.add(tv(10, 500000)), timers.add(tv(20))};
  std::vector<double> before;
  for (event* ev : events) {
    before.push_back(expiryOf(ev));
  }
  timeval offset = tv(9, 750000);
  ASSERT_EQ(event_base_timeout_subtract_offset(base.get(), &offset), 0);
  for (size_t i = 0; i < events.size(); ++i) {
    EXPECT_NEAR(expiryOf(events[i]), before[i] - 9.75, 0.01) << "timer " << i;
  }
  // The earliest is now 0.75 s away: run until all three have fired, pushing them forward
  // again so that the test does not wait.
  timeval rest = tv(20, 500000);
  ASSERT_EQ(event_base_timeout_subtract_offset(base.get(), &rest), 0);
  auto start = std::chrono::steady_clock::now();
  event_base_dispatch(base.get());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(timers.fired, (std::vector<int>{1, 2, 0}));
}

TEST(EventBaseTimeouts, TimersPushedIntoThePastFireAtOnceInExpiryOrder) {
  BasePtr base(event_base_new());
  Timers timers(base.get());
  timers.add(tv(3));
  timers.add(tv(1));
  timers.add(tv(2));
  timers.add(tv(3600));
  timeval offset = tv(100);
  ASSERT_EQ(event_base_timeout_subtract_offset(base.get(), &offset), 0);

  timeval first;
  timeval now;
  ASSERT_EQ(event_base_get_first_timeout(base.get(), &first), 0);
  ASSERT_EQ(tarvo_event_base_now(base.get(), &now), 0);
  EXPECT_LT(seconds(first), seconds(now) - 95);

  event_base_loop(base.get(), EVLOOP_NONBLOCK);
  EXPECT_EQ(timers.fired, (std::vector<int>{1, 2, 0}));
}

TEST(EventBaseTimeouts, PersistentTimedEventsAreLeftUntouched) {
  BasePtr base(event_base_new());
  Timers timers(base.get());
  event* periodic = timers.add(tv(10), EV_PERSIST);
  event* oneShot = timers.add(tv(10));
  double periodicBefore = expiryOf(periodic);
  double oneShotBefore = expiryOf(oneShot);
  timeval offset = tv(4);
  ASSERT_EQ(event_base_timeout_subtract_offset(base.get(), &offset), 0);
  EXPECT_DOUBLE_EQ(expiryOf(periodic), periodicBefore);
  EXPECT_NEAR(expiryOf(oneShot), oneShotBefore - 4, 0.01);
}

}  // namespace
