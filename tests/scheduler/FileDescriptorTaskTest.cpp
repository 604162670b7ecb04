// FileDescriptorTask on real descriptors. Most tests use a manual root, so that readiness
// (one pass of the event loop) and the scheduler runs can be told apart; the last one echoes
// through the real loop.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/FdTestSupport.h"

namespace Tarvo::Test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

class FdTaskTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("fd");
  SocketPair pair;

  std::shared_ptr<FnFdTask> task(const std::string& name, FnFdTask::Hook onRead = {},
                                 FnFdTask::Hook onWrite = {}) {
    return std::make_shared<FnFdTask>(root, name, std::move(onRead), std::move(onWrite));
  }
};

TEST_F(FdTaskTest, ReadinessQueuesTheReadTaskAndItsHookRunsFromTheQueue) {
  std::string got;
  auto t = task("r", [&](FnFdTask& self) { got += drain(self.taskWatchFd()); });
  EXPECT_TRUE(t->taskWatchReadable() && !t->taskWatchWritable() && !t->writeTask());
  EXPECT_EQ(t->taskWatchFd(), -1);
  t->taskWatchFdIs(pair.fd[0]);
  EXPECT_TRUE(fcntl(pair.fd[0], F_GETFL) & O_NONBLOCK);
  pumpLoop();
  EXPECT_FALSE(t->taskScheduled());

  pair.put("ab");
  pumpLoop();
  EXPECT_TRUE(t->taskScheduledReadable());
  EXPECT_TRUE(t->taskBusy());
  EXPECT_EQ(t->reads, 0);  // readiness only queues; the scheduler runs the hook
  EXPECT_TRUE(root->runOnce());
  EXPECT_EQ(got, "ab");
  EXPECT_FALSE(t->taskBusy());

  pair.put("c");  // reads stay watched
  pumpLoop();
  root->runUntilIdle();
  EXPECT_EQ(got, "abc");
  EXPECT_EQ(t->reads, 2);
  EXPECT_EQ(t->writes, 0);
}

TEST_F(FdTaskTest, WriteReadinessIsOneShotUntilTheHookRearmsIt) {
  int rearm = 1;
  auto t = task("w", {}, [&](FnFdTask& self) {
    EXPECT_FALSE(self.taskWatchWritable());  // switched off before the hook
    if (rearm-- > 0) {
      self.taskWatchWritableIs(true);
    }
  });
  t->taskWatchFdIs(pair.fd[0]);
  t->taskWatchWritableIs(true);
  pumpLoop();
  EXPECT_TRUE(t->taskScheduledWritable());
  EXPECT_TRUE(t->taskBusy());
  root->runUntilIdle();
  EXPECT_EQ(t->writes, 1);
  EXPECT_TRUE(t->taskWatchWritable());

  pumpLoop();
  root->runUntilIdle();
  EXPECT_EQ(t->writes, 2);
  EXPECT_FALSE(t->taskWatchWritable());  // the hook did not re-arm
  pumpLoop(), pumpLoop();
  EXPECT_FALSE(t->taskScheduledWritable());
  EXPECT_EQ(t->reads, 0);
}

TEST_F(FdTaskTest, ANewDescriptorDropsPendingRunsTheSameOneKeepsThem) {
  SocketPair other;
  auto t = task("fd");
  t->taskWatchFdIs(pair.fd[0]);
  t->taskWatchWritableIs(true);
  pair.put();
  pumpLoop();
  ASSERT_TRUE(t->taskScheduledReadable() && t->taskScheduledWritable());

  t->taskWatchFdIs(pair.fd[0]);
  EXPECT_TRUE(t->taskScheduledReadable() && t->taskScheduledWritable());

  t->taskWatchFdIs(other.fd[0]);
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(t->taskWatchFd(), other.fd[0]);
  pumpLoop();  // write interest carries over; the new descriptor has nothing to read
  EXPECT_FALSE(t->taskScheduledReadable());
  EXPECT_TRUE(t->taskScheduledWritable());

  t->taskWatchFdDel();
  EXPECT_FALSE(t->taskScheduled());
  EXPECT_EQ(t->taskWatchFd(), -1);
  other.put();
  pumpLoop();
  EXPECT_FALSE(t->taskScheduled());
  root->runUntilIdle();
  EXPECT_EQ(t->reads + t->writes, 0);
}

TEST_F(FdTaskTest, ANegativeOrClosedDescriptorIsRefusedAndChangesNothing) {
  auto t = task("bad");
  t->taskWatchFdIs(-1);  // the descriptor already "watched": nothing to refuse
  t->taskWatchFdIs(pair.fd[0]);
  pair.put();
  pumpLoop();
  int closed = dup(pair.fd[1]);
  ASSERT_GE(closed, 0);
  close(closed);
  EXPECT_THAT([&] { t->taskWatchFdIs(-1); },
              ThrowsMessage<AssertException>(HasSubstr("cannot watch descriptor -1")));
  EXPECT_THAT([&] { t->taskWatchFdIs(closed); },
              ThrowsMessage<AssertException>(
                  HasSubstr("cannot watch descriptor " + std::to_string(closed))));
  EXPECT_EQ(t->taskWatchFd(), pair.fd[0]);
  EXPECT_TRUE(t->taskScheduledReadable());
  // The watched descriptor closed behind the task's back: naming it again changes nothing.
  SocketPair gone;
  t->taskWatchFdIs(gone.fd[0]);
  const int closedWatched = gone.fd[0];
  close(closedWatched);
  gone.fd[0] = -1;
  t->taskWatchFdIs(closedWatched);
  EXPECT_EQ(t->taskWatchFd(), closedWatched);
  t->taskWatchFdDel();
}

TEST_F(FdTaskTest, ReportsForAnotherDescriptorOrAnUnwatchedDirectionEndTheProcess) {
  auto t = task("abort");
  t->taskWatchFdIs(pair.fd[0]);
  const std::string watched = std::to_string(pair.fd[0]);
  EXPECT_DEATH(t->readFdEvent(pair.fd[1]),
               "Notified about " + std::to_string(pair.fd[1]) + " watching " + watched);
  EXPECT_DEATH(t->writeFdEvent(pair.fd[0]), "writeFdEvent\\(\\) called with taskWatchWritable off");
  t->taskWatchReadableIs(false);
  EXPECT_DEATH(t->readFdEvent(pair.fd[0]), "readFdEvent\\(\\) called with taskWatchReadable off");
}

TEST_F(FdTaskTest, HookFailuresAreThrownAndAThrowingHookLeavesItsTaskMarkedExecuting) {
  auto unwatched = task("unwatched");
  unwatched->taskWatchReadableIs(false);
  unwatched->scheduleTaskReadable();
  EXPECT_THAT(
      [&] { root->runUntilIdle(); },
      ThrowsMessage<AssertException>(HasSubstr("ReadTask should only run if taskWatchReadable")));
  EXPECT_EQ(unwatched->reads, 0);

  auto thrower = task("thrower", [](FnFdTask&) { throw std::runtime_error("hook"); });
  thrower->scheduleTaskReadable();
  EXPECT_THROW(root->runUntilIdle(), std::runtime_error);
  thrower->scheduleTaskWritable();
  EXPECT_THAT([&] { root->runUntilIdle(); },
              ThrowsMessage<AssertException>(HasSubstr("Executing task already set")));
  EXPECT_EQ(thrower->writes, 0);
  EXPECT_FALSE(thrower->taskWatchWritable());  // switched off before the check
}

TEST_F(FdTaskTest, SubTasksOutlivingTheirOwnerRunAndDoNothing) {
  int hooks = 0;
  auto count = [&](FnFdTask&) { ++hooks; };
  auto t = task("gone", count, count);
  t->taskWatchFdIs(pair.fd[0]);
  t->scheduleTaskReadable();
  t->scheduleTaskWritable();
  std::shared_ptr<TaskImpl> readTask = t->readTask();
  std::shared_ptr<TaskImpl> writeTask = t->writeTask();
  t.reset();
  pair.put();
  pumpLoop();  // the owner's control is gone: nothing is reported
  EXPECT_TRUE(readTask->taskScheduled() && writeTask->taskScheduled());
  root->runUntilIdle();
  EXPECT_EQ(readTask->taskRunCount(), 1u);
  EXPECT_EQ(writeTask->taskRunCount(), 1u);
  EXPECT_EQ(hooks, 0);
}

TEST_F(FdTaskTest, WorkCountsAreKeptPerDirectionThroughTheRunningHook) {
  const unsigned long long counts[] = {5, 15, 3};
  int run = 0;
  auto t = task(
      "work", [&](FnFdTask& self) { self.taskWorkCountInc(counts[run++]); },
      [](FnFdTask& self) {
        self.taskWorkCountInc(7);
        self.taskWorkPendingIs(2);
      });
  for (int i = 0; i < 3; ++i) {
    t->scheduleTaskReadable();
    root->runUntilIdle();
  }
  EXPECT_EQ(t->taskWorkCountReadableTotal(), 23u);
  EXPECT_FLOAT_EQ(t->taskWorkCountReadableDecayAvg(), 5.7f);
  EXPECT_EQ(t->taskWorkCountReadableHighWaterMark(), 15u);
  EXPECT_EQ(t->taskWorkCountWritableTotal(), 0u);
  EXPECT_THAT([&] { t->taskWorkCountWritableInc(1); },
              ThrowsMessage<AssertException>(
                  HasSubstr("WriteTask not created by taskWatchWritableIs( true )")));
  t->taskWatchWritableIs(false);  // unchanged: still no write task
  EXPECT_EQ(root->registeredTaskCount(), 1u);

  t->scheduleTaskWritable();
  EXPECT_EQ(t->writeTask()->taskName().str(), "work:write");
  root->runUntilIdle();
  EXPECT_EQ(t->taskWorkCountWritableTotal(), 7u);
  EXPECT_EQ(t->taskWorkCountWritableHighWaterMark(), 7u);
  EXPECT_EQ(t->writeTask()->getStats().taskWorkPendingHighWaterMark(), TaskMaybeU32(2));
  EXPECT_EQ(t->taskWorkCountReadableTotal(), 23u);

  t->taskWorkCountReadableInc(4294967295u);
  EXPECT_EQ(t->taskWorkCountReadableHighWaterMark(), 4294967294u);
  EXPECT_EQ(t->taskWorkCountReadableTotal(), 23ull + 4294967295ull);
  // A count of 2^32 or more records its low 32 bits, lowering the mark, also as the first
  // sample after a reset; low bits of all ones are recorded as 4294967294.
  t->taskWorkCountReadableInc((1ull << 32) + 9);
  EXPECT_EQ(t->taskWorkCountReadableHighWaterMark(), 9u);
  t->taskWorkCountReadableInc((1ull << 33) - 1);
  EXPECT_EQ(t->taskWorkCountReadableHighWaterMark(), 4294967294u);
  t->writeTask()->resetStats();
  t->taskWorkCountWritableInc((1ull << 32) + 5);
  EXPECT_EQ(t->taskWorkCountWritableHighWaterMark(), 5u);
  EXPECT_EQ(t->taskWorkCountWritableDecayAvg(), static_cast<float>((1ull << 32) + 5));
  EXPECT_DEATH(t->taskWorkCountInc(1), "called outside the descriptor hooks");
}

TEST_F(FdTaskTest, SettingsReachBothSubTasksAndALateWriteTaskCopiesSomeOfThem) {
  auto suspended = task("suspended");
  suspended->taskQuantumIs(5ms);
  suspended->taskSuspendedIs(true);
  suspended->scheduleTaskReadable();
  EXPECT_FALSE(suspended->taskScheduled());
  suspended->checkCreateWriteTask();
  EXPECT_TRUE(suspended->writeTask()->taskSuspended());
  EXPECT_EQ(suspended->writeTask()->taskQuantum(), 5ms);
  suspended->taskQuantumIs(7ms);
  EXPECT_EQ(suspended->writeTask()->taskQuantum(), 7ms);

  auto ratio3 = task("ratio3");
  ratio3->taskQuantumIs(5ms);
  ratio3->taskTestYieldRatioIs(3);
  ratio3->checkCreateWriteTask();
  EXPECT_EQ(ratio3->writeTask()->taskTestYieldRatio(), 0);  // only "is it 1" is copied
  EXPECT_EQ(ratio3->writeTask()->taskQuantum(), 5ms);

  auto forced = task("forced");
  forced->taskQuantumIs(5ms);
  forced->taskForceYieldInTestIs(true);
  forced->checkCreateWriteTask();
  EXPECT_EQ(forced->writeTask()->taskTestYieldRatio(), 1);
  EXPECT_EQ(forced->writeTask()->taskQuantum(), root->defaultTaskQuantum());  // not copied
  forced->taskForceYieldInTestIs(false);
  EXPECT_EQ(forced->writeTask()->taskTestYieldRatio(), 0);
}

// An echo through the real event loop: the serving task echoes until its peer shuts its side
// and then drops itself from inside its own hook; the client task writes once writable and
// shuts its side once it has read the echo. The loop ends when nothing is watched any more.
TEST(FdTaskLoop, EchoesUntilThePeerShutsAndTheServingTaskDropsItself) {
  std::shared_ptr<TaskSchedulerRoot> root = schedulerRootTarvoNonShared("echo");
  SocketPair pair;
  std::string echoed, received;
  bool sawEof = false;
  std::shared_ptr<FnFdTask> server;
  server = std::make_shared<FnFdTask>(root, "server", [&](FnFdTask& self) {
    char buf[64];
    ssize_t n;
    while ((n = read(self.taskWatchFd(), buf, sizeof buf)) > 0) {
      echoed.append(buf, size_t(n));
      EXPECT_EQ(write(self.taskWatchFd(), buf, size_t(n)), n);
    }
    if (n == 0) {
      sawEof = true;
      self.taskWatchFdDel();
      server.reset();  // the last outside reference to this task
    } else {
      EXPECT_EQ(errno, EAGAIN);
    }
  });
  std::weak_ptr<FnFdTask> served = server;
  server->taskWatchFdIs(pair.fd[0]);
  auto client = std::make_shared<FnFdTask>(
      root, "client",
      [&](FnFdTask& self) {
        received += drain(self.taskWatchFd());
        if (received == "hello") {
          self.taskWatchFdDel();
          shutdown(pair.fd[1], SHUT_WR);
        }
      },
      [&](FnFdTask& self) { EXPECT_EQ(write(self.taskWatchFd(), "hello", 5), 5); });
  client->taskWatchFdIs(pair.fd[1]);
  client->taskWatchWritableIs(true);

  Platform::doEventLoop(10.0);
  EXPECT_EQ(received, "hello");
  EXPECT_EQ(echoed, "hello");
  EXPECT_TRUE(sawEof);
  EXPECT_TRUE(served.expired());
  EXPECT_EQ(client->writes, 1);
}

}  // namespace
}  // namespace Tarvo::Test
