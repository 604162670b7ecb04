// The event layer on real descriptors and timers: the loop, the three libevent controls,
// fast-forward, and the two timer operations it needs from libevent.
#include <event2/event.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "common/TestSupport.h"
#include "platform/EventBaseTimeouts.h"

namespace Tarvo::Test {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Counts = std::vector<int>;

// A socket pair: in() is writable at once and readable after put(); both ends closed on exit.
struct Sockets {
  int fds[2] = {-1, -1};
  Sockets() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  ~Sockets() { ::close(fds[0]), ::close(fds[1]); }
  int in() const { return fds[0]; }
  void put() const { (void)::write(fds[1], "x", 1); }
};

// All three handler kinds: counts notifications and exception calls, runs `action` on each
// notification and answers the exception calls with `swallow`.
struct Recorder : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
  int reads = 0, writes = 0, timeouts = 0, callbacks = 0, exceptions = 0, lastFd = -1;
  bool swallow = false;
  std::function<void()> action = [] {};

  void readFdEvent(int fd) override { note(reads, fd); }
  void writeFdEvent(int fd) override { note(writes, fd); }
  void timeout() override { note(timeouts, -1); }
  void callback() override { note(callbacks, -1); }
  bool handleFdException(int) override { return ++exceptions, swallow; }
  bool handleTimeoutException() override { return ++exceptions, swallow; }
  bool handleCallbackException() override { return ++exceptions, swallow; }
  void note(int& count, int fd) { ++count, lastFd = fd, action(); }
  Counts counts() const { return {reads, writes, timeouts, callbacks, exceptions}; }
};

// One loop pass: runs what is ready now and returns.
const auto onePass = [] { Platform::doEventLoop(0.0); };
const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
// Moves every timer of `base` earlier by `offset`.
const auto subtract = [](event_base* base, const timeval& offset) {
  return event_base_timeout_subtract_offset(base, &offset);
};

TEST(LibeventFdControl, ReadsPersistWritesAreOneShotAndInterestOutlivesTheDescriptor) {
  Sockets first, second;
  Recorder recorder;
  auto control = Platform::getFdControl(&recorder);
  control->setReads(false);  // before any descriptor: setFd arms nothing for reading
  first.put();
  second.put();
  control->setFd(first.in());
  EXPECT_TRUE(fcntl(first.in(), F_GETFL) & O_NONBLOCK);
  onePass();
  control->setReads(true);
  onePass(), onePass();  // not drained: notified again
  control->setReads(false);
  control->setWrites(true);
  onePass(), onePass();
  EXPECT_EQ(recorder.counts(), Counts({2, 1, 0, 0, 0}));
  control->setWrites(true);  // each request yields one more
  onePass();
  control->setWrites(true);
  control->setWrites(false);
  control->setReads(true);
  control->clearEvents();  // keeps the binding and the choice, watches nothing
  onePass();
  EXPECT_EQ(recorder.counts(), Counts({2, 2, 0, 0, 0}));
  EXPECT_EQ(control->getFd(), first.in());
  control->setFd(second.in());
  onePass();
  EXPECT_EQ(recorder.reads, 3);
  EXPECT_EQ(recorder.lastFd, second.in());

  // Two controls ready in the same pass; the first notification destroys both.
  control = Platform::getFdControl(&recorder);
  auto other = Platform::getFdControl(&recorder);
  recorder.action = [&] { control.reset(), other.reset(); };
  control->setFd(first.in());
  other->setFd(second.in());
  onePass(), onePass();
  EXPECT_EQ(recorder.reads, 4);
}

TEST(LibeventFdControlDeathTest, SetFdOnAClosedDescriptorEndsTheProcess) {
  Recorder recorder;  // 4000 is above anything the death test itself opens
  EXPECT_DEATH(Platform::getFdControl(&recorder)->setFd(4000), "flags >= 0");
}

TEST(LibeventTimerControl, RemainingTimeoutFollowsArmingTimedRunsEndAndReArmingWorks) {
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  control->setTimeout(30);
  control->setTimeout(1.5);  // replaces the earlier expiry
  // libevent's coarse monotonic clock is mapped onto the wall clock: allow a few ms.
  EXPECT_NEAR(control->remainingTimeout(), 1.5, 0.01);
  ASSERT_EQ(subtract(leBase(), {5, 0}), 0);
  EXPECT_EQ(control->remainingTimeout(), 0.0);  // due but not yet delivered
  onePass();
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
  control->setTimeout(10);
  control->setTimeout(HUGE_VAL);  // never: disarms
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
  control->setTimeout(60);  // a timed run does not wait for a far timer
  const auto start = std::chrono::steady_clock::now();
  Platform::doEventLoop(0.05);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));

  // Re-armed from its own timeout it runs once per pass, until it destroys itself.
  recorder.action = [&] { recorder.timeouts < 6 ? control->setTimeout(0) : control.reset(); };
  control->setTimeout(0);
  onePass();
  EXPECT_EQ(recorder.timeouts, 2);
  Platform::doEventLoop();
  EXPECT_EQ(recorder.timeouts, 6);
}

TEST(LibeventTimerControl, RemainingTimeoutIsExactToTheMicrosecondAcrossClockTicks) {
  // libevent's coarse clock moves in ticks of several milliseconds; sampled over 20 ms, the
  // remaining time of a fresh timer must never be short by more than the time that passed
  // between arming it and asking, plus the microsecond that the clock readings round off.
  // 1.001 s is stored as a double just below 1.001, and must still arm 1,001,000 us.
  using std::chrono::steady_clock;
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  int tooShort = 0;
  const auto end = steady_clock::now() + std::chrono::milliseconds(20);
  while (steady_clock::now() < end) {
    const auto before = steady_clock::now();
    control->setTimeout(1.001);
    const double shortBy = 1.001 - control->remainingTimeout();
    const std::chrono::duration<double> window = steady_clock::now() - before;
    tooShort += shortBy > window.count() + 1.1e-6;
  }
  EXPECT_EQ(tooShort, 0);
  control->setTimeout(0);
  EXPECT_EQ(control->remainingTimeout(), 0);

  // Counted from a time stamp taken earlier, the expiry is that stamp plus the delay.
  LibeventTimerControl direct(&recorder);
  direct.setTimeoutFrom(1.0, TaskClock::now() - std::chrono::milliseconds(400));
  EXPECT_NEAR(direct.remainingTimeout(), 0.6, 0.005);
}

TEST(LibeventCallbackControl, RequestsCoalesceAndCancelWithdraws) {
  Recorder recorder;
  auto control = Platform::getCallbackControl(&recorder);
  control->requestCallback();
  control->requestCallback();
  EXPECT_TRUE(control->pendingCallback());
  EXPECT_EQ(recorder.callbacks, 0);  // never from inside the request
  Platform::doEventLoop();
  control->requestCallback();
  control->cancelCallback();
  EXPECT_FALSE(control->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(recorder.callbacks, 1);

  // A callback that destroys its own control and then lets an exception through.
  auto doomed = Platform::getCallbackControl(&recorder);
  recorder.action = [&] { doomed.reset(), throw 7; };
  doomed->requestCallback();
  EXPECT_THROW(Platform::doEventLoop(), int);
  EXPECT_EQ(recorder.counts(), Counts({0, 0, 0, 2, 1}));
}

// A refused exception leaves the loop without losing what was due in the same pass, and the
// control stays usable; a swallowed one is traced and the loop goes on. Running the loop from
// inside a handler is refused.
TEST(LibeventControls, HandlerExceptionsFollowTheAnswer) {
  EXPECT_THROW(Platform::getTimerControl(nullptr), AssertException);
  Platform::setupTarvoDebug("TarvoLibevent/9");
  testing::internal::CaptureStderr();
  Recorder recorder, bystander;
  recorder.action = [] { throw 7; };
  Sockets sockets;
  auto fd = Platform::getFdControl(&recorder);
  auto callback = Platform::getCallbackControl(&recorder);
  auto timer = Platform::getTimerControl(&recorder), other = Platform::getTimerControl(&bystander);
  sockets.put();
  fd->setFd(sockets.in());
  timer->setTimeout(0);
  callback->requestCallback();
  other->setTimeout(0);
  // Each refused exception ends its pass; what else was due runs in the following passes.
  int thrown = 0;
  for (; thrown < 8 && (!recorder.timeouts || !recorder.callbacks || !bystander.timeouts);
       ++thrown) {
    EXPECT_THROW(onePass(), int);
  }
  EXPECT_EQ(bystander.timeouts, 1);
  EXPECT_EQ(recorder.counts(), Counts({thrown - 2, 0, 1, 1, thrown}));

  fd->setReads(false);
  recorder.swallow = true;
  timer->setTimeout(0);
  callback->requestCallback();
  EXPECT_NO_THROW(Platform::doEventLoop());
  EXPECT_EQ(recorder.exceptions, thrown + 2);

  recorder.swallow = false;
  recorder.action = onePass;
  timer->setTimeout(0);
  EXPECT_THAT(onePass, ThrowsMessage<AssertException>(HasSubstr("from inside one of its own")));
  recorder.action = [] {};
  timer->setTimeout(0);
  onePass();  // the control that refused works again
  EXPECT_EQ(recorder.timeouts, 4);

  const std::string traced = testing::internal::GetCapturedStderr();
  Platform::clearTarvoDebug("TarvoLibevent/9");
  EXPECT_THAT(traced, AllOf(HasSubstr("Timeout notification exception was handled"),
                            HasSubstr("Callback notification exception was handled")));
}

TEST(LibeventBase, OneBasePerThreadFreedOnlyAfterItsLastControl) {
  leInit();
  event_base* first = leBase();
  leInit();
  leRegisterBase(first);  // the base already held: accepted
  event_base* other = event_base_new();
  EXPECT_THROW(leRegisterBase(other), AssertException);
  EXPECT_EQ(leBase(), first);
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  EXPECT_THAT(leFree, ThrowsMessage<AssertException>(HasSubstr("controls still using the base")));
  control.reset();
  leFree();
  leRegisterBase(other);  // adopted; leFree frees it too
  leFree();
  EXPECT_FALSE(leInitialized());

  // A control held by a thread-local object constructed before the thread's base is released
  // after the base's exit hook has run; the base must wait for it.
  leInit();
  const int fdsBefore = openFdCount();
  bool baseAliveAtRelease = false;
  std::thread([&] {
    static thread_local std::shared_ptr<Platform::TimerControl> held;
    // Destroyed just before `held` lets go of its control.
    static thread_local std::shared_ptr<void> probe(
        nullptr, [&](void*) { baseAliveAtRelease = leInitialized(); });
    held = Platform::getTimerControl(&recorder);
  }).join();
  EXPECT_TRUE(baseAliveAtRelease);
  EXPECT_EQ(openFdCount(), fdsBefore);
}

// libevent ends in its fatal callback when it cannot make its own descriptors, leaving what it
// made open; the base is refused before that with the reason, and nothing is left behind.
TEST(LibeventBase, ThreadOutOfDescriptorsGetsAClearErrorAndNoHalfBuiltBase) {
  ChildResult child = runInChild([] {
    std::thread([] {
      const int before = openFdCount();
      rlimit old{};
      ::getrlimit(RLIMIT_NOFILE, &old);
      rlimit low = old;
      low.rlim_cur = static_cast<rlim_t>(before + 2);  // room for two, a base needs more
      ::setrlimit(RLIMIT_NOFILE, &low);
      Recorder recorder;
      try {
        Platform::getCallbackControl(&recorder);
      } catch (const RuntimeException& e) {
        std::cout << std::string(e.what()).substr(0, std::string(e.what()).find('\n'));
      }
      ::setrlimit(RLIMIT_NOFILE, &old);
      std::cout << " leaked:" << openFdCount() - before << " base:" << leInitialized();
    }).join();
    return 0;
  });
  EXPECT_EQ(child.out,
            "Tarvo::RuntimeException(\"event_base_new failed: Too many open files\") leaked:0 "
            "base:0")
      << child.err;
}

TEST(LibeventBase, WaitForDefaultIsReadOnceAndABadValueIsReported) {
  auto read = [](const char* value) {
    return runInChild([value] {
             setenv("WAITFOR_DEFAULT", value, 1);
             std::cerr << waitForDefaultTimeout() << "|"
                       << (setenv("WAITFOR_DEFAULT", "99", 1), waitForDefaultTimeout());
             return 0;
           })
        .err;
  };
  EXPECT_EQ(read(" 2.5s"), "2.5|2.5");
  // Reported once, with no newline before what the child prints next.
  EXPECT_EQ(read("abc"), "Parsing the WAITFOR_DEFAULT env. variable failedinf|inf");
}

// The child's timed run also shows that such a run ends once nothing is left to wait for.
TEST(LibeventLoop, ForkedChildHasItsBaseReinitialisedAndKeepsItsEvents) {
  Sockets sockets;
  Recorder reader, timer;
  auto control = Platform::getFdControl(&reader);
  control->setFd(sockets.in());
  ChildResult child = runInChild([&] {
    // The fork handler has re-initialised the base: without that, the child's change of
    // interest would reach the parent's kernel registration too.
    reader.action = [&] { control->setReads(false); };  // then only the timer is left
    auto timerControl = Platform::getTimerControl(&timer);
    timerControl->setTimeout(0.01);
    sockets.put();
    const auto start = std::chrono::steady_clock::now();
    Platform::doEventLoop(5.0);
    std::cout << reader.reads << timer.timeouts
              << (std::chrono::steady_clock::now() - start < std::chrono::seconds(1));
    return 0;
  });
  EXPECT_EQ(child.out, "111") << child.err;
  onePass();  // the parent's registration survived the child's re-initialisation
  EXPECT_EQ(reader.reads, 1);
}

TEST(FastForward, TimedFormsAdvanceBySpanOrFirstTimerAndReturnAtOnce) {
  Platform::setFastForward(true);
  // Switches the mode off again however the test ends.
  const std::shared_ptr<void> modeOff(nullptr, [](void*) { Platform::setFastForward(false); });
  double at = leVirtualTimeOffset();
  auto advance = [&] { return leVirtualTimeOffset() - std::exchange(at, leVirtualTimeOffset()); };
  // The offset is per thread, and only the main thread switches the mode.
  std::thread([] {
    Platform::doEventLoop(1.5);
    Platform::doEventLoop(0.7);  // the microseconds carry into a second
    EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 2.2);
    Platform::doEventLoop(1.001);  // a double just below 1.001: still 1,001,000 us
    EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 3.201);
    EXPECT_THROW(Platform::setFastForward(false), AssertException);
  }).join();
  EXPECT_EQ(advance(), 0.0);
  EXPECT_TRUE(Platform::fastForward());

  Recorder recorder;
  timeval delay{};
  EXPECT_FALSE(fastForwardDelayToFirstTimer(&delay));  // nothing pending
  const double clockBefore = Tarvo::time();
  std::vector<double> firedAt;
  recorder.action = [&] { firedAt.push_back(std::round(Tarvo::time() - clockBefore)); };
  auto late = Platform::getTimerControl(&recorder), control = Platform::getTimerControl(&recorder);
  late->setTimeout(3600);
  control->setTimeout(10);
  Platform::doEventLoop();  // every timer, without sleeping; the clock follows
  EXPECT_NEAR(advance(), 3600, 0.05);
  EXPECT_EQ(firedAt, std::vector<double>({10, 3600}));

  control->setTimeout(5);
  Platform::doEventLoop(3.0);  // the whole span, even with a timer due sooner
  EXPECT_NEAR(advance(), 3, 1e-6);
  EXPECT_EQ(recorder.timeouts, 2);
  Platform::doEventLoop(3.0);
  control->setTimeout(5);
  Platform::doEventLoopInWaitfor(60);  // only up to the timer
  EXPECT_NEAR(advance(), 8, 0.01);
  control->setTimeout(50);
  Platform::doEventLoopInWaitfor(2);  // or the span, when that is shorter
  EXPECT_NEAR(advance(), 2, 1e-6);
  EXPECT_EQ(recorder.timeouts, 4);
  // Re-arms itself for a while: a run that does not stop at the first timer would see them all.
  recorder.action = [&] { control->setTimeout(recorder.timeouts < 9 ? 1 : HUGE_VAL); };
  Platform::doEventLoopInWaitfor(HUGE_VAL);  // no limit still returns after the first timer
  EXPECT_EQ(recorder.timeouts, 5);

  // The delay to the first timer is never negative, and needs the mode.
  control->setTimeout(5);
  ASSERT_EQ(subtract(leBase(), {8, 0}), 0);
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(delay.tv_sec + delay.tv_usec, 0);
  Platform::setFastForward(false);
  EXPECT_THROW(fastForwardDelayToFirstTimer(&delay), AssertException);
}

TEST(FastForward, ChildForkedFromAnotherThreadRunsADescriptorAndATimerPendingTogether) {
  std::thread([] {
    leInit();  // this thread's base: it is not the main thread
    Sockets sockets;
    ChildResult child = runInChild([&] {
      Platform::setFastForward(true);  // the child's only thread is its main thread
      Recorder reader, timer;
      auto fd = Platform::getFdControl(&reader);
      auto timerControl = Platform::getTimerControl(&timer);
      reader.action = [&] { fd->setReads(false); };
      fd->setFd(sockets.in());
      timerControl->setTimeout(30);
      sockets.put();
      const double before = Tarvo::time();
      Platform::doEventLoop();  // the readable descriptor and the timer, without sleeping
      std::cout << reader.reads << timer.timeouts << " " << std::round(Tarvo::time() - before);
      return 0;
    });
    EXPECT_EQ(child.out, "11 30") << child.err;
  }).join();
}

// The layer's trace lines and assertions, seen on the standard error stream of a child.
TEST(LibeventTrace, LogSeveritiesMapToLevelsAndAssertionsAreThrownNotTraced) {
  ChildResult child = runInChild([] {
    Platform::clearTraceFormat();
    Platform::setupTarvoDebug("TarvoLibevent/25");  // an exact setting, then without 0 and 1
    Platform::clearTarvoDebug("TarvoLibevent/01");
    for (int severity : {EVENT_LOG_DEBUG, EVENT_LOG_MSG, EVENT_LOG_WARN, EVENT_LOG_ERR}) {
      le_debug_cb(severity, std::to_string(severity).c_str());
    }
    le_debug_cb(EVENT_LOG_MSG, nullptr);
    Platform::setFastForward(true);
    Platform::doEventLoop(0.0);  // a zero advance is traced too
    Platform::setupTarvoDebug("TarvoLibevent/01");
    le_debug_cb(EVENT_LOG_ERR, "error");
    std::vector<std::function<void()>> asserting = {
        [] { le_debug_cb(7, "odd"); },
        [] { le_fatal_cb(12); },
        [] { Platform::refCountingEnabledIs(true); },
        [] { Platform::refCountingEnabled(); },
        [] {
          event_base* other = event_base_new();
          const std::shared_ptr<event_base> freeIt(other, event_base_free);
          leRegisterBase(other);
        },
        [] {
          std::exception_ptr thrown;
          std::thread([&] {
            try {
              Platform::setFastForward(false);
            } catch (...) {
              thrown = std::current_exception();
            }
          }).join();
          std::rethrow_exception(thrown);
        },
        [] {
          Platform::setFastForward(false);
          timeval delay;
          fastForwardDelayToFirstTimer(&delay);
        },
    };
    for (const auto& call : asserting) {
      try {
        call();
        std::cerr << "no exception\n";
      } catch (const AssertException& e) {
        std::cout << e.message().substr(e.message().find(": ") + 2) << "\n";
      }
    }
    return 0;
  });
  EXPECT_THAT(child.err,
              ::testing::MatchesRegex("libevent: 1\n"
                                      "libevent: \n"
                                      "Increasing virtual time offset by 0 to [0-9.e+]+\n"
                                      "libevent: error\n"));
  EXPECT_THAT(child.out,
              ::testing::MatchesRegex(
                  "invalid libevent severity:7 msg:odd\n"
                  "libevent fatal error:12\n"
                  "Tarvo::Platform::refCountingEnabledIs\\(\\) not available in libTarvo.so\n"
                  "Tarvo::Platform::refCountingEnabled\\(\\) not available in libTarvo.so\n"
                  "Tried to register a base:0x[0-9a-f]+ but a thread_local  base already exists: "
                  "0x[0-9a-f]+\n"
                  "FastForward invoked from non-main thread\n"
                  "Called without fast forward enabled\n"));
}

// A private base whose events append their index to `fired` when they run.
struct TimerBase {
  event_base* base = event_base_new();
  std::vector<event*> events;
  static inline std::vector<int> fired;

  TimerBase() { fired.clear(); }
  ~TimerBase() { std::for_each(events.begin(), events.end(), event_free), event_base_free(base); }
  event* add(const timeval* delay, short flags = 0, int fd = -1) {
    auto fire = [](evutil_socket_t, short, void* index) {
      fired.push_back(static_cast<int>(reinterpret_cast<intptr_t>(index)));
    };
    events.push_back(event_new(base, fd, flags, fire, reinterpret_cast<void*>(events.size())));
    event_add(events.back(), delay);
    return events.back();
  }
  event* add(const timeval& delay, short flags = 0) { return add(&delay, flags); }
  void pass() const { event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK); }
  timeval expiry(const event* ev) const {
    timeval at{};
    EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &at));
    return at;
  }
};

// Both implementations of the two operations: in place on libevent 2.1's bookkeeping (what
// the library uses here), and through re-adding each timer (what it uses elsewhere).
struct TimeoutOps {
  const char* name;
  int (*first)(event_base*, timeval*);
  int (*subtract)(event_base*, const timeval*);
  friend void PrintTo(const TimeoutOps& ops, std::ostream* os) { *os << ops.name; }
};
class EventBaseTimeouts : public ::testing::TestWithParam<TimeoutOps> {
 protected:
  int first(event_base* base, timeval* out) { return GetParam().first(base, out); }
  int subtract(event_base* base, const timeval& offset) {
    return GetParam().subtract(base, &offset);
  }
};
INSTANTIATE_TEST_SUITE_P(
    , EventBaseTimeouts,
    ::testing::Values(TimeoutOps{"InPlace", tarvo_event_base_first_timeout_in_place,
                                 tarvo_event_base_subtract_in_place},
                      TimeoutOps{"ByReAdding", tarvo_event_base_first_timeout_by_walk,
                                 tarvo_event_base_subtract_by_rearm}),
    [](const auto& info) { return std::string(info.param.name); });

// A descriptor event with a timeout sits in the same timer heap as the plain timers but is
// found through the descriptor map: it must be both found as the earliest and moved.
TEST_P(EventBaseTimeouts, EarliestIsFoundAndEveryTimerMovesWithADescriptorTimeoutAmongThem) {
  TimerBase timers;
  timeval at{};
  EXPECT_NE(first(timers.base, &at), 0);  // none pending
  Sockets sockets;                        // never readable: only its timeout fires
  timers.add({30, 0});
  event* ten = timers.add({10, 0});
  timers.add({20, 0});
  const timeval five{5, 0};
  event* fd = timers.add(&five, EV_READ, sockets.in());
  const timeval forty{40, 0};  // found first in the descriptor map, but not the earliest
  event* fdLate = timers.add(&forty, EV_READ, sockets.in());
  ASSERT_EQ(first(timers.base, &at), 0);
  EXPECT_EQ(seconds(at), seconds(timers.expiry(fd)));
  const double fdDue = seconds(at);
  ASSERT_EQ(subtract(timers.base, {7, 0}), 0);
  ASSERT_EQ(first(timers.base, &at), 0);
  EXPECT_NEAR(seconds(at), fdDue - 7, 0.01);
  timers.pass();
  EXPECT_EQ(timers.fired, Counts({3}));
  ASSERT_EQ(first(timers.base, &at), 0);
  EXPECT_EQ(seconds(at), seconds(timers.expiry(ten)));
  ASSERT_EQ(subtract(timers.base, {15, 500000}), 0);  // 22.5 s in all: two are past due
  timers.pass();
  EXPECT_EQ(timers.fired, Counts({3, 1, 2}));
  ASSERT_EQ(subtract(timers.base, {7, 600000}), 0);
  timers.pass();
  EXPECT_EQ(timers.fired, Counts({3, 1, 2, 0}));
  ASSERT_EQ(first(timers.base, &at), 0);
  EXPECT_EQ(seconds(at), seconds(timers.expiry(fdLate)));

  // Thousands of timers a microsecond apart, moved again and again: re-adding them takes long
  // enough for libevent's coarse clock to tick in between, and any timer that the move misses
  // or moves twice lands out of order.
  TimerBase many;
  for (int i = 0; i < 20000; ++i) {
    many.add({100, i});
  }
  for (int round = 0; round < 12; ++round) {
    ASSERT_EQ(subtract(many.base, {9, 0}), 0);
  }
  event_base_dispatch(many.base);
  ASSERT_EQ(many.fired.size(), 20000u);
  EXPECT_TRUE(std::is_sorted(many.fired.begin(), many.fired.end()));
}

// What only the in-place move can do: a persistent timer fires sooner once and keeps its
// period, and events on a common-timeout queue move together with the queue's own timer.
TEST(EventBaseTimeoutsInPlace, PersistentTimersKeepTheirPeriodAndCommonTimeoutQueuesMove) {
  TimerBase timers;
  timers.add({30, 0});
  event* periodic = timers.add({14, 0}, EV_PERSIST);
  timers.add({20, 0});
  const timeval past25{25, 500000};
  ASSERT_EQ(tarvo_event_base_subtract_in_place(timers.base, &past25), 0);
  timers.pass();  // virtual 25.5 s: the periodic one at 14, then the one at 20
  EXPECT_EQ(timers.fired, Counts({1, 2}));
  const timeval five{5, 0};
  ASSERT_EQ(tarvo_event_base_subtract_in_place(timers.base, &five), 0);
  timers.pass();  // virtual 30.5 s: the periodic one again at 28, then the one at 30
  EXPECT_EQ(timers.fired, Counts({1, 2, 1, 0}));
  timeval now{};
  ASSERT_EQ(tarvo_event_base_now(timers.base, &now), 0);
  // Next at 42 s; the margin is for the real time the test has taken since arming.
  EXPECT_NEAR(seconds(timers.expiry(periodic)) - seconds(now), 11.5, 0.25);

  TimerBase common;
  const timeval ten{10, 0};
  const timeval* queue = event_base_init_common_timeout(common.base, &ten);
  ASSERT_NE(queue, nullptr);
  common.add({12, 0});
  common.add(queue), common.add(queue), common.add(queue);
  common.add({5, 0});
  timeval at{};
  ASSERT_EQ(tarvo_event_base_first_timeout_in_place(common.base, &at), 0);
  EXPECT_EQ(seconds(at), seconds(common.expiry(common.events[4])));
  const timeval past10{10, 500000};
  ASSERT_EQ(tarvo_event_base_subtract_in_place(common.base, &past10), 0);
  common.pass();
  EXPECT_EQ(common.fired, Counts({4, 1, 2, 3}));
  ASSERT_EQ(tarvo_event_base_first_timeout_in_place(common.base, &at), 0);
  ASSERT_EQ(tarvo_event_base_now(common.base, &now), 0);
  EXPECT_NEAR(seconds(at) - seconds(now), 1.5, 0.25);
  common.add(queue);  // queued behind the moved ones, due 10 s from now
  ASSERT_EQ(tarvo_event_base_subtract_in_place(common.base, &five), 0);
  common.pass();
  EXPECT_EQ(common.fired, Counts({4, 1, 2, 3, 0}));
  ASSERT_EQ(tarvo_event_base_subtract_in_place(common.base, &five), 0);
  common.pass();
  EXPECT_EQ(common.fired, Counts({4, 1, 2, 3, 0, 5}));
}

}  // namespace
}  // namespace Tarvo::Test
