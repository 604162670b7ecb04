// The platform controls backed by tasks, driven through the same handler objects as the
// event-loop controls.
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/FdTestSupport.h"

namespace Tarvo::Test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// Counts its callbacks and timeouts. (What a throwing handler does to these controls is
// checked by the fault-injection suite.)
struct Calls : Platform::CallbackHandler, Platform::TimeoutHandler {
  int calls = 0;
  void callback() override { ++calls; }
  void timeout() override { ++calls; }
};

// Logs "r<fd>" / "w<fd>" per notification and drains what is readable; throws from
// readFdEvent while `fail` is set, and handleFdException then answers false.
struct FdLog : Platform::FdEventHandler {
  std::vector<std::string> events;
  std::vector<int> exceptionFds;
  bool fail = false;
  std::function<void()> after = [] {};
  void readFdEvent(int fd) override {
    events.push_back("r" + std::to_string(fd));
    drain(fd);
    if (fail) {
      throw std::runtime_error("read");
    }
    after();
  }
  void writeFdEvent(int fd) override { events.push_back("w" + std::to_string(fd)); }
  bool handleFdException(int fd) override { return exceptionFds.push_back(fd), false; }
};

class TaskControlsTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root =
      std::make_shared<TaskSchedulerRootManual>("controls");
  SocketPair pair;
  std::string r0 = "r" + std::to_string(pair.fd[0]);
  std::string w0 = "w" + std::to_string(pair.fd[0]);
};

TEST_F(TaskControlsTest, CallbackControlIsATaskOfTheGivenPriorityAndName) {
  Calls handler;
  auto control = Platform::getCallbackControl(&handler, root, TaskPriority::high, "cb");
  EXPECT_FALSE(control->pendingCallback());
  control->requestCallback();
  control->requestCallback();
  EXPECT_TRUE(control->pendingCallback());
  EXPECT_EQ(handler.calls, 0);  // never from inside the request
  root->runUntilIdle();
  EXPECT_EQ(handler.calls, 1);
  EXPECT_FALSE(control->pendingCallback());
  TaskStat stat = root->taskStatForTest("cb");
  EXPECT_EQ(stat.taskRunCount(), 1u);
  EXPECT_EQ(stat.taskPriority(), TaskPriority::high);

  control->requestCallback();
  control->cancelCallback();
  EXPECT_FALSE(control->pendingCallback());
  root->runUntilIdle();
  EXPECT_EQ(handler.calls, 1);
}

TEST_F(TaskControlsTest, TimerControlIsATimerTaskOnTheRootsClock) {
  Calls handler;
  auto control = Platform::getTimerControl(&handler, root, TaskPriority::low, "tick");
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
  control->setTimeout(0.0);  // runnable at once, run on the next scheduler turn
  EXPECT_EQ(handler.calls, 0);
  EXPECT_TRUE(root->runOnce());
  EXPECT_EQ(handler.calls, 1);
  EXPECT_EQ(root->taskStatForTest("tick").taskPriority(), TaskPriority::low);

  control->setTimeout(5.0);
  root->advanceBy(4s);
  EXPECT_EQ(handler.calls, 1);
  EXPECT_DOUBLE_EQ(control->remainingTimeout(), 1.0);
  control->setTimeout(3.0);  // replaces the earlier expiry
  root->advanceBy(2s);
  EXPECT_EQ(handler.calls, 1);
  root->advanceBy(1s);
  EXPECT_EQ(handler.calls, 2);
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);

  control->setTimeout(1.0);
  control->delTimeout();
  EXPECT_EQ(control->remainingTimeout(), HUGE_VAL);
  root->advanceBy(2s);
  EXPECT_EQ(handler.calls, 2);
}

TEST_F(TaskControlsTest, FdControlDeliversFromItsTasksAndClearEventsUnbindsIt) {
  FdLog handler;
  auto control = Platform::getFdControl(&handler, root, TaskPriority::normal, "fdc");
  control->setFd(pair.fd[0]);
  EXPECT_EQ(control->getFd(), pair.fd[0]);
  pair.put();
  pumpLoop();
  EXPECT_TRUE(handler.events.empty());  // readiness queues the task; the run delivers
  root->runUntilIdle();
  EXPECT_THAT(handler.events, ElementsAre(r0));
  control->setWrites(true);
  pumpLoop(), root->runUntilIdle();
  EXPECT_THAT(handler.events, ElementsAre(r0, w0));

  // clearEvents() unbinds exactly as delFd() does, dropping a pending delivery.
  pair.put();
  pumpLoop();
  control->clearEvents();
  EXPECT_EQ(control->getFd(), -1);
  root->runUntilIdle();
  pair.put();
  pumpLoop(), root->runUntilIdle();
  EXPECT_EQ(handler.events.size(), 2u);
  control->setFd(pair.fd[0]);
  pumpLoop(), root->runUntilIdle();
  EXPECT_THAT(handler.events, ElementsAre(r0, w0, r0));

  EXPECT_THAT([&] { Platform::getFdControl(nullptr, root, TaskPriority::normal, "none"); },
              ThrowsMessage<AssertException>(HasSubstr("a control needs a handler")));
}

// The task-backed descriptor control through the real loop: the handler unbinds its control
// once it has read, so the loop ends. An unhandled exception leaves the loop call. (The
// event-loop control behind the other factory has its own suite.)
TEST(TaskControlsLoop, TaskBackedDescriptorControlServesTheRealLoop) {
  std::shared_ptr<TaskSchedulerRoot> root = schedulerRootTarvoNonShared("loop");
  SocketPair pair;
  FdLog handler;
  auto control = Platform::getFdControl(&handler, root, TaskPriority::low, "fd");
  handler.after = [&] { control->delFd(); };
  control->setFd(pair.fd[0]);
  pair.put();
  Platform::doEventLoop(10.0);
  EXPECT_THAT(handler.events, ElementsAre("r" + std::to_string(pair.fd[0])));

  handler.fail = true;  // handleFdException answers false
  control->setFd(pair.fd[0]);
  pair.put();
  EXPECT_THROW(Platform::doEventLoop(10.0), std::runtime_error);
  EXPECT_THAT(handler.exceptionFds, ElementsAre(pair.fd[0]));
  control->delFd();
}

}  // namespace
}  // namespace Tarvo::Test
