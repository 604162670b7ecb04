#include <fcntl.h>

#include <cmath>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "EventTestSupport.h"
#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "common/TestSupport.h"
#include "platform/EventBaseTimeouts.h"

namespace Tarvo::Test {
namespace {

// One loop pass: runs what is ready now and returns.
void onePass() {
  Platform::doEventLoop(0.0);
}

TEST(LibeventFdControl, ReadsArePersistentAndWritesOneShot) {
  Sockets sockets;
  Recorder recorder;
  auto control = Platform::getFdControl(&recorder);
  sockets.put();
  control->setFd(sockets.in());  // read interest is on from the start
  EXPECT_TRUE(fcntl(sockets.in(), F_GETFL) & O_NONBLOCK);
  onePass();
  onePass();  // not drained: notified again
  EXPECT_EQ(recorder.reads, 2);

  control->setReads(false);
  control->setWrites(true);
  onePass();
  onePass();
  EXPECT_EQ(recorder.writes, 1);
  control->setWrites(true);
  onePass();
  control->setWrites(true);
  control->setWrites(false);
  onePass();
  EXPECT_EQ(recorder.writes, 2);
  EXPECT_EQ(recorder.reads, 2);
}

TEST(LibeventFdControl, StoredInterestCarriesOverClearEventsAndNewDescriptors) {
  Sockets first;
  Sockets second;
  Recorder recorder;
  auto control = Platform::getFdControl(&recorder);
  control->setReads(false);  // before any descriptor: setFd arms nothing for reading
  first.put();
  second.put();
  control->setFd(first.in());
  onePass();
  control->setReads(true);
  control->clearEvents();  // keeps the binding and the choice, watches nothing
  onePass();
  EXPECT_EQ(recorder.reads, 0);
  EXPECT_EQ(control->getFd(), first.in());

  control->setFd(second.in());
  onePass();
  EXPECT_EQ(recorder.reads, 1);
  EXPECT_EQ(recorder.lastFd, second.in());
  control->delFd();
  onePass();
  EXPECT_EQ(recorder.reads, 1);
}

TEST(LibeventFdControl, ControlsDestroyedInsideNotificationsAreNotNotified) {
  Sockets a;
  Sockets b;
  Recorder recorder;
  std::shared_ptr<Platform::FdControl> controlA = Platform::getFdControl(&recorder);
  std::shared_ptr<Platform::FdControl> controlB = Platform::getFdControl(&recorder);
  recorder.action = [&] {  // both are ready in the same pass; the first destroys both
    controlA.reset();
    controlB.reset();
  };
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

TEST(LibeventTimerControl, RemainingTimeoutFollowsArmingReplacingAndDisarming) {
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
  // libevent's coarse monotonic clock is mapped onto the wall clock: allow a few ms.
  control->setTimeout(30);
  control->setTimeout(1.5);  // replaces the earlier expiry
  EXPECT_NEAR(control->remainingTimeout(), 1.5, 0.01);

  const timeval past{5, 0};
  ASSERT_EQ(event_base_timeout_subtract_offset(leBase(), &past), 0);
  EXPECT_EQ(control->remainingTimeout(), 0.0);  // due but not yet delivered
  onePass();
  EXPECT_EQ(recorder.timeouts, 1);
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);

  control->setTimeout(10);
  control->setTimeout(HUGE_VAL);  // never: disarms
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
}

TEST(LibeventTimerControl, ReArmedFromItsOwnTimeoutItRunsOncePerPassUntilDestroyed) {
  Recorder recorder;
  std::shared_ptr<Platform::TimerControl> control = Platform::getTimerControl(&recorder);
  recorder.action = [&] {
    if (recorder.timeouts < 5) {
      control->setTimeout(0);
    } else {
      control.reset();
    }
  };
  control->setTimeout(0);
  onePass();
  EXPECT_EQ(recorder.timeouts, 1);
  Platform::doEventLoop();
  EXPECT_EQ(recorder.timeouts, 5);
  EXPECT_EQ(control, nullptr);
}

TEST(LibeventCallbackControl, RequestsCoalesceAndCancelWithdraws) {
  Recorder recorder;
  auto control = Platform::getCallbackControl(&recorder);
  control->requestCallback();
  control->requestCallback();
  EXPECT_TRUE(control->pendingCallback());
  EXPECT_EQ(recorder.callbacks, 0);  // never from inside the request
  Platform::doEventLoop();
  EXPECT_EQ(recorder.callbacks, 1);
  EXPECT_FALSE(control->pendingCallback());

  control->requestCallback();
  control->cancelCallback();
  EXPECT_FALSE(control->pendingCallback());
  Platform::doEventLoop();
  EXPECT_EQ(recorder.callbacks, 1);
}

TEST(LibeventControls, HandlerExceptionsFollowTheAnswerAndSwallowedOnesAreTraced) {
  EXPECT_THROW(Platform::getTimerControl(nullptr), AssertException);
  ChildResult child = runInChild([] {
    Platform::setupTarvoDebug("TarvoLibevent/9");
    Recorder recorder;
    recorder.action = [] { throw Boom(); };
    Sockets sockets;
    auto fd = Platform::getFdControl(&recorder);
    auto timer = Platform::getTimerControl(&recorder);
    auto callback = Platform::getCallbackControl(&recorder);
    sockets.put();
    fd->setFd(sockets.in());
    timer->setTimeout(1.5);
    timer->setTimeout(0);
    callback->requestCallback();
    int thrown = 0;
    for (int pass = 0; pass < 3; ++pass) {
      try {
        onePass();
      } catch (const Boom&) {
        ++thrown;
      }
    }
    fd->setReads(false);
    recorder.swallow = true;
    timer->setTimeout(0);
    callback->requestCallback();
    onePass();
    std::cout << thrown << " " << recorder.exceptions;
    return 0;
  });
  EXPECT_EQ(child.out, "3 5");
  for (const char* text : {" set timeout 1.5",
                           "LibeventTimerControl::handler: Timeout "
                           "notification exception was handled",
                           "LibeventCallbackControl::timeout: Callback notification exception "
                           "was handled"}) {
    EXPECT_NE(child.err.find(text), std::string::npos) << text << "\n" << child.err;
  }
}

}  // namespace
}  // namespace Tarvo::Test
