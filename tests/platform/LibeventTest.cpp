// The event layer on real descriptors and timers: the loop, the three libevent controls,
// fast-forward, and the two timer operations it needs from libevent.
#include <event2/event.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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

// A socket pair: in() is writable at once and readable after put(); both ends closed on exit.
struct Sockets {
  int fds[2] = {-1, -1};
  Sockets() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0); }
  ~Sockets() { ::close(fds[0]), ::close(fds[1]); }
  int in() const { return fds[0]; }
  void put() const { (void)::write(fds[1], "x", 1); }
};

struct Boom {};

// All three handler kinds: counts notifications and exception calls, runs `action` on each
// notification and answers the exception calls with `swallow`.
struct Recorder : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
  int reads = 0, writes = 0, timeouts = 0, callbacks = 0, exceptions = 0, lastFd = -1;
  bool swallow = false;
  std::function<void()> action;

  void readFdEvent(int fd) override { note(reads, fd); }
  void writeFdEvent(int fd) override { note(writes, fd); }
  void timeout() override { note(timeouts, -1); }
  void callback() override { note(callbacks, -1); }
  bool handleFdException(int) override { return ++exceptions, swallow; }
  bool handleTimeoutException() override { return ++exceptions, swallow; }
  bool handleCallbackException() override { return ++exceptions, swallow; }
  void note(int& count, int fd) {
    ++count, lastFd = fd;
    if (action) {
      action();
    }
  }
};

// One loop pass: runs what is ready now and returns.
void onePass() {
  Platform::doEventLoop(0.0);
}

double seconds(const timeval& t) {
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
}

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
  onePass();
  onePass();  // not drained: notified again
  control->setReads(false);
  control->setWrites(true);
  onePass();
  onePass();
  EXPECT_EQ(recorder.reads, 2);
  EXPECT_EQ(recorder.writes, 1);
  control->setWrites(true);  // each request yields one more
  onePass();
  control->setWrites(true);
  control->setWrites(false);
  control->setReads(true);
  control->clearEvents();  // keeps the binding and the choice, watches nothing
  onePass();
  EXPECT_EQ(recorder.reads + recorder.writes, 4);
  EXPECT_EQ(control->getFd(), first.in());
  control->setFd(second.in());
  onePass();
  EXPECT_EQ(recorder.reads, 3);
  EXPECT_EQ(recorder.lastFd, second.in());
}

TEST(LibeventFdControl, ControlsDestroyedInsideNotificationsAreNotNotified) {
  Sockets a, b;
  Recorder recorder;
  auto controlA = Platform::getFdControl(&recorder);
  auto controlB = Platform::getFdControl(&recorder);
  // Both are ready in the same pass; the first notification destroys both.
  recorder.action = [&] { controlA.reset(), controlB.reset(); };
  a.put();
  b.put();
  controlA->setFd(a.in());
  controlB->setFd(b.in());
  onePass();
  onePass();
  EXPECT_EQ(recorder.reads, 1);
}

TEST(LibeventFdControlDeathTest, SetFdOnAClosedDescriptorEndsTheProcess) {
  const int fd = 4000;  // above anything the death test itself opens
  ASSERT_LT(fcntl(fd, F_GETFD), 0);
  Recorder recorder;
  auto control = Platform::getFdControl(&recorder);
  EXPECT_DEATH(control->setFd(fd), "flags >= 0");
}

TEST(LibeventTimerControl, RemainingTimeoutFollowsArmingTimedRunsEndAndReArmingWorks) {
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  control->setTimeout(30);
  control->setTimeout(1.5);  // replaces the earlier expiry
  // libevent's coarse monotonic clock is mapped onto the wall clock: allow a few ms.
  EXPECT_NEAR(control->remainingTimeout(), 1.5, 0.01);
  const timeval past{5, 0};
  ASSERT_EQ(event_base_timeout_subtract_offset(leBase(), &past), 0);
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
  std::shared_ptr<Platform::CallbackControl> doomed;
  Recorder killer;
  killer.action = [&] {
    doomed.reset();
    throw Boom();
  };
  doomed = Platform::getCallbackControl(&killer);
  doomed->requestCallback();
  EXPECT_THROW(Platform::doEventLoop(), Boom);
  EXPECT_EQ(killer.exceptions, 1);
}

// A refused exception leaves the loop without losing what was due in the same pass, and the
// control stays usable; a swallowed one is traced and the loop goes on. Running the loop from
// inside a handler is refused.
TEST(LibeventControls, HandlerExceptionsFollowTheAnswer) {
  EXPECT_THROW(Platform::getTimerControl(nullptr), AssertException);
  Platform::setupTarvoDebug("TarvoLibevent/9");
  testing::internal::CaptureStderr();
  Recorder recorder, bystander;
  recorder.action = [] { throw Boom(); };
  Sockets sockets;
  auto fd = Platform::getFdControl(&recorder);
  auto timer = Platform::getTimerControl(&recorder);
  auto callback = Platform::getCallbackControl(&recorder);
  auto other = Platform::getTimerControl(&bystander);
  sockets.put();
  fd->setFd(sockets.in());
  timer->setTimeout(1.5);
  timer->setTimeout(0);
  callback->requestCallback();
  other->setTimeout(0);
  // Each refused exception ends its pass; what else was due runs in the following passes.
  int thrown = 0;
  for (int pass = 0;
       pass < 8 && (recorder.timeouts == 0 || recorder.callbacks == 0 || bystander.timeouts == 0);
       ++pass) {
    EXPECT_THROW(onePass(), Boom);
    ++thrown;
  }
  EXPECT_EQ(bystander.timeouts, 1);
  EXPECT_EQ(recorder.timeouts, 1);
  EXPECT_EQ(recorder.callbacks, 1);
  EXPECT_EQ(recorder.reads + recorder.timeouts + recorder.callbacks, thrown);
  EXPECT_EQ(recorder.exceptions, thrown);

  fd->setReads(false);
  recorder.swallow = true;
  timer->setTimeout(0);
  callback->requestCallback();
  EXPECT_NO_THROW(Platform::doEventLoop());
  EXPECT_EQ(recorder.exceptions, thrown + 2);

  recorder.swallow = false;
  recorder.action = [] { onePass(); };
  timer->setTimeout(0);
  EXPECT_THAT([] { onePass(); },
              ThrowsMessage<AssertException>(HasSubstr("from inside one of its own")));
  recorder.action = nullptr;
  timer->setTimeout(0);
  onePass();  // the control that refused works again
  EXPECT_EQ(recorder.timeouts, 4);

  const std::string traced = testing::internal::GetCapturedStderr();
  Platform::clearTarvoDebug("TarvoLibevent/9");
  for (const char* text : {" set timeout 1.5",
                           "LibeventTimerControl::handler: Timeout notification exception was "
                           "handled",
                           "LibeventCallbackControl::timeout: Callback notification exception "
                           "was handled"}) {
    EXPECT_THAT(traced, HasSubstr(text));
  }
}

TEST(LibeventBase, OneBasePerThreadUntilFreedAndNeverUnderALiveControl) {
  leInit();
  event_base* first = leBase();
  leInit();
  leRegisterBase(first);  // the base already held: accepted
  event_base* other = event_base_new();
  EXPECT_THAT(
      [&] { leRegisterBase(other); },
      ThrowsMessage<AssertException>(HasSubstr(" but a thread_local  base already exists: ")));
  EXPECT_EQ(leBase(), first);
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  EXPECT_THAT([] { leFree(); },
              ThrowsMessage<AssertException>(HasSubstr("controls still using the base")));
  control.reset();
  leFree();
  leRegisterBase(other);  // adopted; leFree frees it too
  leFree();
  EXPECT_FALSE(leInitialized());
}

// A control held by a thread-local object constructed before the thread's base is released
// after the base's exit hook has run; the base must wait for it.
TEST(LibeventBase, ThreadExitFreesTheThreadsBaseAfterItsLastControl) {
  struct HeldTimer {
    std::shared_ptr<Platform::TimerControl> control;
    bool* baseAliveAtRelease = nullptr;
    ~HeldTimer() { *baseAliveAtRelease = leInitialized(); }
  };
  leInit();
  const int fdsBefore = openFdCount();
  Recorder recorder;
  bool baseAliveAtRelease = false, threadIsMain = true;
  std::thread([&] {
    static thread_local HeldTimer held;
    held.baseAliveAtRelease = &baseAliveAtRelease;
    held.control = Platform::getTimerControl(&recorder);
    threadIsMain = Platform::mainThreadFlag();
  }).join();
  EXPECT_FALSE(threadIsMain);
  EXPECT_TRUE(baseAliveAtRelease);
  EXPECT_EQ(openFdCount(), fdsBefore);
}

TEST(LibeventBase, WaitForDefaultIsReadOnceAndABadValueIsReported) {
  auto read = [](const char* value) {
    return runInChild([value] {
             setenv("WAITFOR_DEFAULT", value, 1);
             const double first = waitForDefaultTimeout();
             setenv("WAITFOR_DEFAULT", "99", 1);
             std::cerr << "[" << first << "|" << waitForDefaultTimeout() << "]" << std::flush;
             return 0;
           })
        .err;
  };
  EXPECT_EQ(read(" 2.5s"), "[2.5|2.5]");
  // Reported once, with no newline before what the child prints next.
  EXPECT_EQ(read("abc"), "Parsing the WAITFOR_DEFAULT env. variable failed[inf|inf]");
}

// The child's timed run also shows that such a run ends once nothing is left to wait for.
TEST(LibeventLoop, ForkedChildReinitialisesItsBaseAndKeepsItsEvents) {
  Sockets sockets;
  Recorder reader, timer;
  auto control = Platform::getFdControl(&reader);
  control->setFd(sockets.in());
  ChildResult child = runInChild([&] {
    leForkReinit();
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

class FastForward : public ::testing::Test {
 protected:
  void SetUp() override { Platform::setFastForward(true); }
  void TearDown() override { Platform::setFastForward(false); }
};

TEST_F(FastForward, LoopRunsEveryTimerWithoutWaitingAndTheClockFollows) {
  Recorder recorder;
  std::vector<double> firedAt;
  recorder.action = [&] { firedAt.push_back(Tarvo::time()); };
  auto late = Platform::getTimerControl(&recorder);
  auto early = Platform::getTimerControl(&recorder);
  late->setTimeout(3600);
  early->setTimeout(10);
  const double clockBefore = Tarvo::time();
  const double offsetBefore = leVirtualTimeOffset();
  Platform::doEventLoop();
  EXPECT_NEAR(leVirtualTimeOffset() - offsetBefore, 3600, 0.05);  // it did not sleep
  ASSERT_EQ(firedAt.size(), 2u);
  EXPECT_NEAR(firedAt[0] - clockBefore, 10, 0.05);
  EXPECT_NEAR(firedAt[1] - clockBefore, 3600, 0.05);
}

TEST_F(FastForward, DelayToTheFirstTimerIsNeverNegativeAndNeedsTheMode) {
  timeval delay{};
  EXPECT_FALSE(fastForwardDelayToFirstTimer(&delay));
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  control->setTimeout(5);
  const timeval past{8, 0};
  ASSERT_EQ(event_base_timeout_subtract_offset(leBase(), &past), 0);
  ASSERT_TRUE(fastForwardDelayToFirstTimer(&delay));
  EXPECT_EQ(delay.tv_sec + delay.tv_usec, 0);
  Platform::setFastForward(false);
  EXPECT_THROW(fastForwardDelayToFirstTimer(&delay), AssertException);
}

TEST_F(FastForward, TimedFormsAdvanceBySpanOrFirstTimerAndReturnAtOnce) {
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  double offset = leVirtualTimeOffset();
  auto advance = [&offset] {
    const double was = offset;
    return (offset = leVirtualTimeOffset()) - was;
  };
  control->setTimeout(5);
  Platform::doEventLoop(3.0);  // the whole span, even with a timer due sooner
  EXPECT_NEAR(advance(), 3, 1e-6);
  EXPECT_EQ(recorder.timeouts, 0);
  Platform::doEventLoop(3.0);
  control->setTimeout(5);
  Platform::doEventLoopInWaitfor(60);  // only up to the timer
  EXPECT_NEAR(advance(), 8, 0.01);
  control->setTimeout(50);
  Platform::doEventLoopInWaitfor(2);  // or the span, when that is shorter
  EXPECT_NEAR(advance(), 2, 1e-6);
  EXPECT_EQ(recorder.timeouts, 2);
  recorder.action = [&] { control->setTimeout(1); };  // re-arms itself for ever
  Platform::doEventLoopInWaitfor(HUGE_VAL);  // no limit still returns after the first timer
  EXPECT_EQ(recorder.timeouts, 3);
  recorder.action = nullptr;
}

TEST_F(FastForward, OffsetIsPerThreadAndOnlyTheMainThreadSwitchesTheMode) {
  const double mainOffset = leVirtualTimeOffset();
  std::thread([] {
    Platform::doEventLoop(1.5);
    Platform::doEventLoop(0.7);  // the microseconds carry into a second
    EXPECT_DOUBLE_EQ(leVirtualTimeOffset(), 2.2);
    EXPECT_THAT(
        [] { Platform::setFastForward(false); },
        ThrowsMessage<AssertException>(HasSubstr("FastForward invoked from non-main thread")));
  }).join();
  EXPECT_EQ(leVirtualTimeOffset(), mainOffset);
  EXPECT_TRUE(Platform::fastForward());
}

// A private base whose timers append their index to `fired` when they run.
struct TimerBase {
  event_base* base = event_base_new();
  std::vector<event*> events;
  static inline std::vector<int> fired;

  TimerBase() { fired.clear(); }
  ~TimerBase() {
    std::for_each(events.begin(), events.end(), event_free);
    event_base_free(base);
  }
  event* add(long sec, long usec = 0, short flags = 0) {
    auto fire = [](evutil_socket_t, short, void* index) {
      fired.push_back(static_cast<int>(reinterpret_cast<intptr_t>(index)));
    };
    events.push_back(event_new(base, -1, flags, fire, reinterpret_cast<void*>(events.size())));
    const timeval delay{sec, usec};
    event_add(events.back(), &delay);
    return events.back();
  }
  double expiry(const event* ev) const {
    timeval tv;
    EXPECT_TRUE(event_pending(ev, EV_TIMEOUT, &tv));
    return seconds(tv);
  }
  void subtract(long sec, long usec = 0) {
    const timeval offset{sec, usec};
    ASSERT_EQ(event_base_timeout_subtract_offset(base, &offset), 0);
  }
};

TEST(EventBaseTimeouts, FirstTimeoutIsTheEarliestAndSubtractionMakesPastTimersFireAtOnce) {
  TimerBase timers;
  timeval first{};
  EXPECT_NE(event_base_get_first_timeout(timers.base, &first), 0);  // none pending
  std::vector<event*> events = {timers.add(30), timers.add(10), timers.add(20)};
  event_del(timers.add(1));
  event* periodic = timers.add(10, 0, EV_PERSIST);
  ASSERT_EQ(event_base_get_first_timeout(timers.base, &first), 0);
  EXPECT_DOUBLE_EQ(seconds(first), timers.expiry(events[1]));
  std::vector<double> before;
  for (event* ev : events) {
    before.push_back(timers.expiry(ev));
  }
  const double periodicBefore = timers.expiry(periodic);
  timers.subtract(25, 500000);
  // Moving a persistent timed event would change its period for good, so it stays.
  EXPECT_DOUBLE_EQ(timers.expiry(periodic), periodicBefore);
  for (size_t i = 0; i < events.size(); ++i) {
    EXPECT_NEAR(timers.expiry(events[i]), before[i] - 25.5, 0.01) << "timer " << i;
  }
  event_base_loop(timers.base, EVLOOP_NONBLOCK);
  EXPECT_EQ(timers.fired, (std::vector<int>{1, 2}));
  timers.subtract(5);
  event_base_loop(timers.base, EVLOOP_NONBLOCK);
  EXPECT_EQ(timers.fired, (std::vector<int>{1, 2, 0}));
}

// Re-arming thousands of timers takes long enough for libevent's coarse clock to tick in
// between; timers a microsecond apart must still keep their order.
TEST(EventBaseTimeouts, OrderSurvivesTheClockMovingDuringSubtraction) {
  TimerBase timers;
  const int count = 20000;
  for (int i = 0; i < count; ++i) {
    timers.add(100, i);
  }
  for (int round = 0; round < 12; ++round) {
    timers.subtract(9);
  }
  event_base_dispatch(timers.base);
  ASSERT_EQ(timers.fired.size(), static_cast<size_t>(count));
  EXPECT_TRUE(std::is_sorted(timers.fired.begin(), timers.fired.end()));
}

}  // namespace
}  // namespace Tarvo::Test
