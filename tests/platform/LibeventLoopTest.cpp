#include <event2/event.h>

#include <chrono>
#include <cmath>
#include <iostream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "EventTestSupport.h"
#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "common/TestSupport.h"

namespace Tarvo::Test {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(LibeventBase, InitRegisterAndFreeKeepOneBasePerThread) {
  leInit();
  event_base* first = leBase();
  ASSERT_NE(first, nullptr);
  leInit();
  EXPECT_EQ(leBase(), first);
  EXPECT_TRUE(Platform::mainThreadFlag());

  // The base already held may be registered again; a different one is refused.
  EXPECT_NO_THROW(leRegisterBase(first));
  event_base* other = event_base_new();
  try {
    leRegisterBase(other);
    ADD_FAILURE() << "a second base was accepted";
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("Tried to register a base:"), std::string::npos) << e.message();
    EXPECT_NE(e.message().find(" but a thread_local  base already exists: "), std::string::npos)
        << e.message();
  }
  EXPECT_EQ(leBase(), first);

  // After leFree the thread may adopt a base of its own making, and leFree frees that too.
  leFree();
  EXPECT_FALSE(leInitialized());
  leRegisterBase(other);
  EXPECT_EQ(leBase(), other);
  leFree();
  leInit();
  EXPECT_TRUE(leInitialized());
}

TEST(LibeventBase, BaseIsNotFreedUnderALiveControl) {
  TimerRecorder timer;
  auto control = Platform::getTimerControl(&timer);
  EXPECT_THROW(leFree(), AssertException);
  EXPECT_TRUE(leInitialized());
  control->setTimeout(0);
  Platform::doEventLoop();
  EXPECT_EQ(timer.fired, 1);
}

// A control kept in a thread-local object that was constructed before the thread's base is
// destroyed after the base's own exit hook has run; the base must wait for it.
struct ThreadHeldTimer {
  std::shared_ptr<Platform::TimerControl> control;
  bool* baseAliveAtRelease = nullptr;
  ~ThreadHeldTimer() {
    if (baseAliveAtRelease != nullptr) {
      *baseAliveAtRelease = leInitialized();
    }
  }
};

TEST(LibeventBase, ThreadExitFreesTheBaseAfterItsLastControl) {
  leInit();
  const int fdsBefore = openFdCount();
  TimerRecorder timer;
  bool baseAliveAtRelease = false;
  std::thread([&] {
    static thread_local ThreadHeldTimer held;
    held.baseAliveAtRelease = &baseAliveAtRelease;
    held.control = Platform::getTimerControl(&timer);
    held.control->setTimeout(30);
    EXPECT_GT(openFdCount(), fdsBefore);
  }).join();
  EXPECT_TRUE(baseAliveAtRelease);
  EXPECT_EQ(openFdCount(), fdsBefore);

  // Without controls the base goes with the thread.
  std::thread([] { leInit(); }).join();
  EXPECT_EQ(openFdCount(), fdsBefore);
}

TEST(LibeventBase, EachThreadHasItsOwnBase) {
  leInit();
  event_base* mainBase = leBase();
  event_base* threadBase = nullptr;
  bool threadIsMain = true;
  std::thread([&] {
    EXPECT_FALSE(leInitialized());
    TimerRecorder timer;
    auto control = Platform::getTimerControl(&timer);
    threadBase = leBase();
    threadIsMain = Platform::mainThreadFlag();
    control->setTimeout(0);
    Platform::doEventLoop();
    EXPECT_EQ(timer.fired, 1);
  }).join();
  EXPECT_NE(threadBase, nullptr);
  EXPECT_NE(threadBase, mainBase);
  EXPECT_FALSE(threadIsMain);
  EXPECT_EQ(leBase(), mainBase);
}

// Prints what the child run of the test binary read from WAITFOR_DEFAULT; the second call
// must not read the environment again.
TEST(LibeventBase, WaitForDefaultChildPrintsValue) {
  if (!isChildRun()) {
    GTEST_SKIP() << "runs only as a child of WaitForDefaultComesFromTheEnvironmentOnce";
  }
  double first = waitForDefaultTimeout();
  setenv("WAITFOR_DEFAULT", "99", 1);
  std::cout << "[" << first << "|" << waitForDefaultTimeout() << "]" << std::flush;
}

TEST(LibeventBase, WaitForDefaultComesFromTheEnvironmentOnce) {
  const std::string filter = "LibeventBase.WaitForDefaultChildPrintsValue";
  const std::string message = "Parsing the WAITFOR_DEFAULT env. variable failed";
  struct Case {
    std::vector<std::string> env;
    std::string printed;
    bool complains;
  };
  const Case cases[] = {{{"WAITFOR_DEFAULT=2.5"}, "[2.5|2.5]", false},
                        {{"WAITFOR_DEFAULT=  0.25s"}, "[0.25|0.25]", false},
                        {{}, "[inf|inf]", false},
                        {{"WAITFOR_DEFAULT=abc"}, "[inf|inf]", true},
                        {{"WAITFOR_DEFAULT=1e999"}, "[inf|inf]", true}};
  for (const Case& c : cases) {
    ChildResult child = runSelf(filter, c.env);
    SCOPED_TRACE(c.env.empty() ? "unset" : c.env[0]);
    EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
    EXPECT_NE(child.out.find(c.printed), std::string::npos) << child.out;
    size_t at = child.err.find(message);
    EXPECT_EQ(at != std::string::npos, c.complains) << child.err;
    if (c.complains && at != std::string::npos) {
      // No newline follows the message.
      EXPECT_NE(child.err.substr(at + message.size(), 1), "\n");
    }
  }
}

TEST(LibeventBase, LibeventDiagnosticsBecomeTraceLinesAndFatalErrorsExceptions) {
  ChildResult child = runInChild([] {
    le_debug_cb(EVENT_LOG_DEBUG, "debug-line");
    le_debug_cb(EVENT_LOG_MSG, "message-line");
    le_debug_cb(EVENT_LOG_WARN, "warning-line");
    le_debug_cb(EVENT_LOG_ERR, "error-line");
    Platform::setupTarvoDebug("TarvoLibevent/5");
    le_debug_cb(EVENT_LOG_MSG, "second-message-line");
    le_debug_cb(EVENT_LOG_ERR, nullptr);
    return 0;
  });
  ASSERT_EQ(child.exitCode, 0) << child.err;
  // Levels 0 and 1 are on by default; 5 only once asked for; 9 never here.
  EXPECT_EQ(child.err.find("debug-line"), std::string::npos) << child.err;
  EXPECT_EQ(child.err.find("libevent: message-line"), std::string::npos) << child.err;
  EXPECT_NE(child.err.find("libevent: warning-line"), std::string::npos) << child.err;
  EXPECT_NE(child.err.find("libevent: error-line"), std::string::npos) << child.err;
  EXPECT_NE(child.err.find("libevent: second-message-line"), std::string::npos) << child.err;

  try {
    le_debug_cb(7, "odd");
    ADD_FAILURE() << "unknown severity accepted";
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("invalid libevent severity:7 msg:odd"), std::string::npos);
  }
  try {
    le_fatal_cb(3);
    ADD_FAILURE() << "fatal error did not throw";
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("libevent fatal error:3"), std::string::npos);
  }
}

TEST(LibeventLoop, TimedRunReturnsOnceNothingIsLeftToWaitFor) {
  // Nothing pending at all.
  auto start = Clock::now();
  Platform::doEventLoop(5.0);
  EXPECT_LT(secondsSince(start), 1.0);

  // The only timer runs; the loop then returns long before the span.
  TimerRecorder timer;
  auto control = Platform::getTimerControl(&timer);
  control->setTimeout(0.01);
  start = Clock::now();
  Platform::doEventLoop(5.0);
  EXPECT_EQ(timer.fired, 1);
  EXPECT_LT(secondsSince(start), 1.0);
}

TEST(LibeventLoop, TimedRunWithAFarTimerReturnsAfterTheSpan) {
  TimerRecorder timer;
  auto control = Platform::getTimerControl(&timer);
  control->setTimeout(60);
  auto start = Clock::now();
  Platform::doEventLoop(0.05);
  double elapsed = secondsSince(start);
  EXPECT_GE(elapsed, 0.045);
  EXPECT_LT(elapsed, 1.0);
  EXPECT_EQ(timer.fired, 0);
  EXPECT_GT(control->remainingTimeout(), 59.0);
  // The untimed form runs until nothing is left: here the armed timer is disarmed first.
  control->delTimeout();
  Platform::doEventLoop();
}

TEST(LibeventLoop, HandlerExceptionLeavesTheLoopAndNothingIsLost) {
  TimerRecorder thrower;
  thrower.onTimeout = [] { throw Boom(); };
  TimerRecorder bystander;
  auto throwing = Platform::getTimerControl(&thrower);
  auto other = Platform::getTimerControl(&bystander);
  // Both due in the same pass; whichever runs after the throw must still run later.
  throwing->setTimeout(0);
  other->setTimeout(0);

  int caught = 0;
  for (int pass = 0; pass < 3 && bystander.fired == 0; ++pass) {
    try {
      Platform::doEventLoop();
    } catch (const Boom&) {
      ++caught;
    }
  }
  EXPECT_EQ(caught, 1);
  EXPECT_EQ(thrower.fired, 1);
  EXPECT_EQ(thrower.exceptions, 1);
  EXPECT_EQ(bystander.fired, 1);

  // The throwing control and the loop are usable again.
  thrower.onTimeout = nullptr;
  throwing->setTimeout(0);
  Platform::doEventLoop();
  EXPECT_EQ(thrower.fired, 2);
}

TEST(LibeventLoop, RunningTheLoopFromInsideANotificationIsRefused) {
  TimerRecorder timer;
  timer.onTimeout = [] { Platform::doEventLoop(0.0); };
  auto control = Platform::getTimerControl(&timer);
  control->setTimeout(0);
  EXPECT_THROW(Platform::doEventLoop(), AssertException);
  // The refusal did not leave the loop marked as running.
  timer.onTimeout = nullptr;
  control->setTimeout(0);
  Platform::doEventLoop(1.0);
  EXPECT_EQ(timer.fired, 2);
}

TEST(LibeventLoop, ForkedChildReinitialisesItsBaseAndKeepsItsEvents) {
  FdPair pipe = FdPair::pipe();
  FdRecorder reader;
  reader.onRead = [&](int fd) {
    char c;
    (void)::read(fd, &c, 1);
  };
  auto control = Platform::getFdControl(&reader);
  control->setFd(pipe.in());

  ChildResult child = runInChild([&] {
    leForkReinit();
    // Once the byte is read only the timer is left, so the loop returns after it.
    reader.onRead = [&](int fd) {
      char c;
      (void)::read(fd, &c, 1);
      control->setReads(false);
    };
    TimerRecorder timer;
    auto timerControl = Platform::getTimerControl(&timer);
    timerControl->setTimeout(0.01);
    pipe.put();
    Platform::doEventLoop(5.0);
    std::cout << "reads=" << reader.reads << " timers=" << timer.fired;
    return 0;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  EXPECT_EQ(child.out, "reads=1 timers=1");

  // The child's re-initialisation left the parent's registration intact.
  pipe.put();
  Platform::doEventLoop(0.0);
  EXPECT_EQ(reader.reads, 1);
}

TEST(PlatformEntryPoints, ReferenceCountingIsNotAvailable) {
  try {
    Platform::refCountingEnabledIs(true);
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_NE(e.message().find("Tarvo::Platform::refCountingEnabledIs() not available in "
                               "libTarvo.so"),
              std::string::npos);
  }
  try {
    (void)Platform::refCountingEnabled();
    ADD_FAILURE();
  } catch (const AssertException& e) {
    EXPECT_NE(
        e.message().find("Tarvo::Platform::refCountingEnabled() not available in libTarvo.so"),
        std::string::npos);
  }
}

}  // namespace
}  // namespace Tarvo::Test
