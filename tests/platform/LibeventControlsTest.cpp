#include <event2/event.h>
#include <fcntl.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "EventTestSupport.h"
#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "common/TestSupport.h"
#include "platform/EventBaseTimeouts.h"

namespace Tarvo::Test {
namespace {

// One loop pass: runs what is ready now and returns.
void onePass() {
  Platform::doEventLoop(0.0);
}

void drain(int fd) {
  char buffer[64];
  while (::read(fd, buffer, sizeof buffer) > 0) {
  }
}

TEST(LibeventFdControl, ReadInterestIsOnFromTheStartAndPersistent) {
  FdPair pipe = FdPair::pipe();
  FdRecorder handler;
  auto control = Platform::getFdControl(&handler);
  EXPECT_EQ(control->getFd(), -1);
  pipe.put();
  control->setFd(pipe.in());
  EXPECT_EQ(control->getFd(), pipe.in());
  EXPECT_TRUE(fcntl(pipe.in(), F_GETFL) & O_NONBLOCK);

  // Not drained: every pass notifies again.
  onePass();
  onePass();
  EXPECT_EQ(handler.reads, 2);
  EXPECT_EQ(handler.writes, 0);

  control->setReads(false);
  onePass();
  EXPECT_EQ(handler.reads, 2);
  control->setReads(true);
  onePass();
  EXPECT_EQ(handler.reads, 3);
}

TEST(LibeventFdControl, WriteInterestIsOneShotPerRequest) {
  FdPair sockets = FdPair::socketPair();
  FdRecorder handler;
  auto control = Platform::getFdControl(&handler);
  control->setReads(false);
  control->setFd(sockets.in());
  control->setWrites(true);
  onePass();
  onePass();
  EXPECT_EQ(handler.writes, 1);
  control->setWrites(true);
  onePass();
  EXPECT_EQ(handler.writes, 2);

  // Switched off before the loop runs: no notification.
  control->setWrites(true);
  control->setWrites(false);
  onePass();
  EXPECT_EQ(handler.writes, 2);
  EXPECT_EQ(handler.reads, 0);
}

TEST(LibeventFdControl, StoredInterestCarriesOverToTheNextDescriptor) {
  FdPair first = FdPair::pipe();
  FdPair second = FdPair::socketPair();
  FdRecorder handler;
  auto control = Platform::getFdControl(&handler);

  // Reads switched off before any descriptor: setFd arms nothing for reading.
  control->setReads(false);
  first.put();
  control->setFd(first.in());
  onePass();
  EXPECT_EQ(handler.reads, 0);

  // Both interests chosen, then cleared: the binding and choices stay, nothing is watched.
  control->setReads(true);
  control->setWrites(true);
  control->clearEvents();
  EXPECT_EQ(control->getFd(), first.in());
  onePass();
  EXPECT_EQ(handler.reads, 0);
  EXPECT_EQ(handler.writes, 0);

  // setFd with the same descriptor re-arms reads (and the write request).
  control->setFd(first.in());
  onePass();
  EXPECT_EQ(handler.reads, 1);

  // Moving to another descriptor: notifications name the new one.
  std::vector<int> seen;
  handler.onRead = [&](int fd) { seen.push_back(fd); };
  drain(first.in());
  second.put();
  control->setFd(second.in());
  onePass();
  EXPECT_EQ(seen, std::vector<int>{second.in()});

  control->delFd();
  EXPECT_EQ(control->getFd(), -1);
  int before = handler.reads + handler.writes;
  onePass();
  EXPECT_EQ(handler.reads + handler.writes, before);
}

TEST(LibeventFdControl, DestroyingControlsInsideNotificationsStopsThem) {
  FdPair a = FdPair::pipe();
  FdPair b = FdPair::pipe();
  FdRecorder handlerA;
  FdRecorder handlerB;
  std::shared_ptr<Platform::FdControl> controlA = Platform::getFdControl(&handlerA);
  std::shared_ptr<Platform::FdControl> controlB = Platform::getFdControl(&handlerB);
  // Whichever runs first destroys the other, which is ready in the same pass, and itself.
  handlerA.onRead = [&](int) {
    controlB.reset();
    controlA.reset();
  };
  handlerB.onRead = [&](int) {
    controlA.reset();
    controlB.reset();
  };
  a.put();
  b.put();
  controlA->setFd(a.in());
  controlB->setFd(b.in());
  onePass();
  onePass();
  EXPECT_EQ(handlerA.reads + handlerB.reads, 1);
  EXPECT_EQ(controlA, nullptr);
  EXPECT_EQ(controlB, nullptr);
}

TEST(LibeventFdControl, ExceptionsFollowTheHandlersAnswer) {
  FdPair pipe = FdPair::pipe();
  FdRecorder handler;
  handler.onRead = [](int) { throw Boom(); };
  auto control = Platform::getFdControl(&handler);
  pipe.put();
  control->setFd(pipe.in());
  EXPECT_THROW(onePass(), Boom);
  EXPECT_EQ(handler.exceptions, 1);

  handler.swallow = true;
  EXPECT_NO_THROW(onePass());
  EXPECT_EQ(handler.reads, 2);
  EXPECT_EQ(handler.exceptions, 2);
}

TEST(LibeventFdControlDeathTest, SetFdOnAClosedDescriptorEndsTheProcess) {
  // High enough that the death test's own pipes cannot reuse it.
  const int fd = 4000;
  ASSERT_LT(fcntl(fd, F_GETFD), 0);
  FdRecorder handler;
  auto control = Platform::getFdControl(&handler);
  EXPECT_DEATH(control->setFd(fd), "flags >= 0");
}

TEST(LibeventControls, NullHandlersAreRefused) {
  EXPECT_THROW(Platform::getFdControl(nullptr), AssertException);
  EXPECT_THROW(Platform::getTimerControl(nullptr), AssertException);
  EXPECT_THROW(Platform::getCallbackControl(nullptr), AssertException);
}

TEST(LibeventTimerControl, RemainingTimeoutFollowsArmingReplacingAndDisarming) {
  TimerRecorder handler;
  auto control = Platform::getTimerControl(&handler);
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);

  control->setTimeout(1.5);
  // libevent's coarse monotonic clock is mapped onto the wall clock, so allow a few
  // milliseconds either way.
  EXPECT_NEAR(control->remainingTimeout(), 1.5, 0.01);

  // A new expiry replaces the old one, later or sooner.
  control->setTimeout(30);
  EXPECT_NEAR(control->remainingTimeout(), 30, 0.01);
  control->setTimeout(2);
  EXPECT_NEAR(control->remainingTimeout(), 2, 0.01);

  // Expiry passed but not yet delivered.
  timeval past{5, 0};
  ASSERT_EQ(event_base_timeout_subtract_offset(leBase(), &past), 0);
  EXPECT_EQ(control->remainingTimeout(), 0.0);
  onePass();
  EXPECT_EQ(handler.fired, 1);
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);

  control->setTimeout(10);
  control->delTimeout();
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
  control->setTimeout(10);
  control->setTimeout(HUGE_VAL);
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
  onePass();
  EXPECT_EQ(handler.fired, 1);
}

TEST(LibeventTimerControl, ReArmingFromInsideTimeoutRunsOncePerPass) {
  TimerRecorder handler;
  auto control = Platform::getTimerControl(&handler);
  handler.onTimeout = [&] {
    if (handler.fired < 5) {
      control->setTimeout(0);
    }
  };
  control->setTimeout(0);
  onePass();
  EXPECT_EQ(handler.fired, 1);
  Platform::doEventLoop();
  EXPECT_EQ(handler.fired, 5);
}

TEST(LibeventTimerControl, DestroyingTheTimerInsideItsOwnTimeoutIsSafe) {
  TimerRecorder handler;
  std::shared_ptr<Platform::TimerControl> control = Platform::getTimerControl(&handler);
  handler.onTimeout = [&] { control.reset(); };
  control->setTimeout(0);
  Platform::doEventLoop();
  EXPECT_EQ(handler.fired, 1);
  EXPECT_EQ(control, nullptr);
}

TEST(LibeventTimerControl, ExceptionsFollowTheHandlersAnswer) {
  TimerRecorder handler;
  handler.onTimeout = [] { throw Boom(); };
  auto control = Platform::getTimerControl(&handler);
  control->setTimeout(0);
  const Boom* first = nullptr;
  try {
    Platform::doEventLoop();
  } catch (const Boom& e) {
    first = &e;
  }
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(handler.exceptions, 1);
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);

  // Swallowed: the loop goes on to the next expiry.
  handler.swallow = true;
  TimerRecorder later;
  auto laterControl = Platform::getTimerControl(&later);
  control->setTimeout(0);
  laterControl->setTimeout(0.001);
  EXPECT_NO_THROW(Platform::doEventLoop());
  EXPECT_EQ(handler.exceptions, 2);
  EXPECT_EQ(later.fired, 1);
}

TEST(LibeventCallbackControl, RequestsCoalesceAndCancelWithdraws) {
  CallbackRecorder handler;
  auto control = Platform::getCallbackControl(&handler);
  EXPECT_FALSE(control->pendingCallback());
  control->requestCallback();
  control->requestCallback();
  EXPECT_TRUE(control->pendingCallback());
  EXPECT_EQ(handler.calls, 0);
  Platform::doEventLoop();
  EXPECT_EQ(handler.calls, 1);
  EXPECT_FALSE(control->pendingCallback());

  control->requestCallback();
  control->cancelCallback();
  EXPECT_FALSE(control->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(handler.calls, 1);
}

TEST(LibeventCallbackControl, RequestFromInsideTheCallbackIsDeliveredOnALaterPass) {
  CallbackRecorder handler;
  auto control = Platform::getCallbackControl(&handler);
  int depth = 0;
  int maxDepth = 0;
  handler.onCallback = [&] {
    ++depth;
    maxDepth = std::max(maxDepth, depth);
    if (handler.calls < 3) {
      control->requestCallback();
    }
    --depth;
  };
  control->requestCallback();
  onePass();
  EXPECT_EQ(handler.calls, 1);
  Platform::doEventLoop();
  EXPECT_EQ(handler.calls, 3);
  EXPECT_EQ(maxDepth, 1);
}

TEST(LibeventCallbackControl, ExceptionsFollowTheHandlersAnswerAndAreTraced) {
  ChildResult child = runInChild([] {
    Platform::setupTarvoDebug("TarvoLibevent/9");
    CallbackRecorder handler;
    handler.onCallback = [] { throw Boom(); };
    auto control = Platform::getCallbackControl(&handler);
    control->requestCallback();
    bool thrown = false;
    try {
      Platform::doEventLoop();
    } catch (const Boom&) {
      thrown = true;
    }
    handler.swallow = true;
    control->requestCallback();
    Platform::doEventLoop();

    TimerRecorder timer;
    timer.swallow = true;
    timer.onTimeout = [] { throw Boom(); };
    auto timerControl = Platform::getTimerControl(&timer);
    timerControl->setTimeout(1.5);
    timerControl->setTimeout(0);
    Platform::doEventLoop();
    return thrown && handler.calls == 2 && handler.exceptions == 2 && timer.exceptions == 1 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  for (const char* line : {" request", " execute",
                           "LibeventCallbackControl::timeout: Callback notification "
                           "exception was handled"}) {
    EXPECT_NE(child.err.find(std::string("Callback 0x")), std::string::npos);
    EXPECT_NE(child.err.find(line), std::string::npos) << line << "\n" << child.err;
  }
  for (const char* line : {" set timeout 1.5", " del timeout", " expired",
                           "LibeventTimerControl::handler: Timeout notification exception was "
                           "handled"}) {
    EXPECT_NE(child.err.find(line), std::string::npos) << line << "\n" << child.err;
  }
  // Swallowed exceptions are traced once each; the one let through is not.
  size_t handled = 0;
  for (size_t at = child.err.find("Callback notification exception was handled");
       at != std::string::npos;
       at = child.err.find("Callback notification exception was handled", at + 1)) {
    ++handled;
  }
  EXPECT_EQ(handled, 1u);
}

}  // namespace
}  // namespace Tarvo::Test
