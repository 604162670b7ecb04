#include <event2/event.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "EventTestSupport.h"
#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/LibeventFactory.h"
#include "common/TestSupport.h"

namespace Tarvo::Test {
namespace {

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <typename F>
std::string assertText(F&& f) {
  try {
    f();
  } catch (const AssertException& e) {
    return e.message();
  }
  return "no AssertException";
}

TEST(LibeventBase, OneBasePerThreadUntilFreedAndNeverUnderALiveControl) {
  leInit();
  event_base* first = leBase();
  leInit();
  leRegisterBase(first);  // the base already held: accepted
  event_base* other = event_base_new();
  EXPECT_NE(
      assertText([&] { leRegisterBase(other); }).find(" but a thread_local  base already exists: "),
      std::string::npos);
  EXPECT_EQ(leBase(), first);

  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  EXPECT_NE(assertText([] { leFree(); }).find("controls still using the base"), std::string::npos);
  control.reset();
  leFree();
  leRegisterBase(other);  // adopted; leFree frees it too
  leFree();
  EXPECT_FALSE(leInitialized());
}

// A control held by a thread-local object constructed before the thread's base is destroyed
// after the base's exit hook has run; the base must wait for it.
struct ThreadHeldTimer {
  std::shared_ptr<Platform::TimerControl> control;
  bool* baseAliveAtRelease = nullptr;
  ~ThreadHeldTimer() { *baseAliveAtRelease = leInitialized(); }
};

TEST(LibeventBase, ThreadExitFreesTheThreadsBaseAfterItsLastControl) {
  leInit();
  const int fdsBefore = openFdCount();
  Recorder recorder;
  bool baseAliveAtRelease = false;
  bool threadIsMain = true;
  std::thread([&] {
    static thread_local ThreadHeldTimer held;
    held.baseAliveAtRelease = &baseAliveAtRelease;
    held.control = Platform::getTimerControl(&recorder);
    threadIsMain = Platform::mainThreadFlag();
    EXPECT_NE(leBase(), nullptr);
  }).join();
  EXPECT_FALSE(threadIsMain);
  EXPECT_TRUE(baseAliveAtRelease);
  EXPECT_EQ(openFdCount(), fdsBefore);
}

TEST(LibeventBase, WaitForDefaultChild) {
  if (!isChildRun()) {
    GTEST_SKIP() << "child of WaitForDefaultIsReadOnce";
  }
  double first = waitForDefaultTimeout();
  setenv("WAITFOR_DEFAULT", "99", 1);
  std::cerr << "[" << first << "|" << waitForDefaultTimeout() << "]" << std::flush;
}

TEST(LibeventBase, WaitForDefaultIsReadOnce) {
  ChildResult good = runSelf("LibeventBase.WaitForDefaultChild", {"WAITFOR_DEFAULT= 2.5s"});
  EXPECT_EQ(good.err, "[2.5|2.5]");
  // Reported once, with no newline before what the child prints next.
  ChildResult bad = runSelf("LibeventBase.WaitForDefaultChild", {"WAITFOR_DEFAULT=abc"});
  EXPECT_EQ(bad.err, "Parsing the WAITFOR_DEFAULT env. variable failed[inf|inf]");
}

TEST(LibeventLoop, TimedRunEndsAfterTheSpanOrWhenNothingIsLeft) {
  Recorder recorder;
  auto control = Platform::getTimerControl(&recorder);
  auto start = std::chrono::steady_clock::now();
  Platform::doEventLoop(5.0);
  control->setTimeout(0.01);
  Platform::doEventLoop(5.0);
  EXPECT_EQ(recorder.timeouts, 1);
  EXPECT_LT(secondsSince(start), 1.0);

  control->setTimeout(60);
  start = std::chrono::steady_clock::now();
  Platform::doEventLoop(0.05);
  EXPECT_GE(secondsSince(start), 0.045);
  EXPECT_EQ(recorder.timeouts, 1);
}

TEST(LibeventLoop, HandlerExceptionLeavesTheLoopAndNothingIsLost) {
  Recorder thrower;
  Recorder bystander;
  thrower.action = [] { throw Boom(); };
  auto throwing = Platform::getTimerControl(&thrower);
  auto other = Platform::getTimerControl(&bystander);
  throwing->setTimeout(0);
  other->setTimeout(0);  // due in the same pass, and must still run
  int caught = 0;
  for (int pass = 0; pass < 3 && bystander.timeouts == 0; ++pass) {
    try {
      Platform::doEventLoop();
    } catch (const Boom&) {
      ++caught;
    }
  }
  EXPECT_EQ(caught, 1);
  EXPECT_EQ(thrower.exceptions, 1);
  EXPECT_EQ(bystander.timeouts, 1);

  // Running the loop from inside a notification is refused, and the loop stays usable.
  thrower.action = [] { Platform::doEventLoop(0.0); };
  throwing->setTimeout(0);
  EXPECT_THROW(Platform::doEventLoop(), AssertException);
  thrower.action = nullptr;
  throwing->setTimeout(0);
  Platform::doEventLoop();
  EXPECT_EQ(thrower.timeouts, 3);
}

TEST(LibeventLoop, ForkedChildReinitialisesItsBaseAndKeepsItsEvents) {
  Sockets sockets;
  Recorder reader;
  auto control = Platform::getFdControl(&reader);
  control->setFd(sockets.in());
  ChildResult child = runInChild([&] {
    leForkReinit();
    reader.action = [&] { control->setReads(false); };  // then only the timer is left
    Recorder timer;
    auto timerControl = Platform::getTimerControl(&timer);
    timerControl->setTimeout(0.01);
    sockets.put();
    Platform::doEventLoop(5.0);
    std::cout << "reads=" << reader.reads << " timeouts=" << timer.timeouts;
    return 0;
  });
  EXPECT_EQ(child.out, "reads=1 timeouts=1") << child.err;
  // The parent's registration survived the child's re-initialisation.
  Platform::doEventLoop(0.0);
  EXPECT_EQ(reader.reads, 1);
}

}  // namespace
}  // namespace Tarvo::Test
