#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/Thread.h"
#include "common/TestSupport.h"
#include "scheduler/FdTestSupport.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using Test::FnTask;
using Test::historyCount;
using Test::loggingTask;
using Test::SocketPair;
using ::testing::AllOf;
using ::testing::HasSubstr;
using Log = std::vector<std::string>;

// Logs "F" each time its descriptor is readable; stops watching once `done` says so.
struct ReadLogger : Platform::FdEventHandler {
  ReadLogger(int fd, Log& log, std::function<bool()> done) : log(log), done(std::move(done)) {
    control->setFd(fd);
  }
  void readFdEvent(int) override {
    log.push_back("F");
    if (done()) {
      control->delFd();
    }
  }
  void writeFdEvent(int) override {}

  Log& log;
  std::function<bool()> done;
  std::shared_ptr<Platform::FdControl> control = Platform::getFdControl(this);
};

class RootTarvoTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRoot> root = schedulerRootTarvoNonShared("loop");
  Log log;
};

TEST_F(RootTarvoTest, OneTaskPerLoopPassInterleavesWithAReadableDescriptor) {
  SocketPair pair;
  pair.put();  // never read: readable on every pass
  int runs = 0;
  auto busy = loggingTask(root, TaskPriority::normal, "T", log, [&] { return ++runs < 20; });
  ReadLogger reader(pair.fd[0], log, [&] { return runs >= 20; });
  busy->scheduleTask();
  Platform::doEventLoop();
  EXPECT_EQ(runs, 20);
  for (size_t i = 1; i < log.size(); ++i) {
    EXPECT_NE(log[i], log[i - 1]) << "two " << log[i] << " in one pass at " << i;
  }
  EXPECT_GE(log.size(), 39u);
}

TEST_F(RootTarvoTest, SuspendedRootIgnoresItsRunAndResumeRequestsExactlyOne) {
  auto a = loggingTask(root, TaskPriority::normal, "A", log);
  auto b = loggingTask(root, TaskPriority::normal, "B", log);
  a->scheduleTask();
  root->suspendedIs(true);
  b->scheduleTask();
  Platform::doEventLoop();  // the one pending run is ignored; nothing is requested again
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended), 1u);
  root->suspendedIs(false);
  Platform::doEventLoop();
  EXPECT_EQ(log, (Log{"A", "B"}));
  EXPECT_EQ(historyCount(*root, TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended), 1u);
}

TEST_F(RootTarvoTest, ThrowingTaskMakesTheLoopThrowAndTheNextLoopGoesOn) {
  auto bad = std::make_shared<FnTask>(root, TaskPriority::high, "bad",
                                      [](FnTask&) { throw std::runtime_error("task failed"); });
  auto good = loggingTask(root, TaskPriority::normal, "good", log);
  auto later = loggingTask(root, TaskPriority::low, "later", log);
  bad->scheduleTask();
  good->scheduleTask();
  later->scheduleTask();
  EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
  EXPECT_TRUE(log.empty());
  Platform::doEventLoop();
  EXPECT_EQ(log, (Log{"good", "later"}));
  good->scheduleTask();  // the scheduler went idle normally: a new request reaches the loop
  Platform::doEventLoop();
  EXPECT_EQ(log, (Log{"good", "later", "good"}));

  // A root held only by its task, whose owner lets go during the throwing run: the root
  // goes away with the task after the run, not in the middle of it.
  std::shared_ptr<FnTask> last;
  last = std::make_shared<FnTask>(schedulerRootTarvoNonShared("short-lived"), TaskPriority::normal,
                                  "last", [&](FnTask&) {
                                    last.reset();
                                    throw std::runtime_error("gone");
                                  });
  last->scheduleTask();
  EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
  EXPECT_EQ(last, nullptr);
  Platform::doEventLoop();  // nothing of the dead root is left armed
}

TEST_F(RootTarvoTest, RunSwitchesVirtualTimeOff) {
  bool yielded = true;
  auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "t",
                                       [&](FnTask& t) { yielded = t.taskShouldYield(); });
  root->virtualTimeIs(true);
  task->scheduleTask();
  Platform::doEventLoop();
  EXPECT_FALSE(root->virtualTime());
  EXPECT_FALSE(yielded);
  EXPECT_EQ(task->runs, 1);
}

TEST_F(RootTarvoTest, SchedulingFromAnotherThreadAbortsNamingBothThreads) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto task = loggingTask(root, TaskPriority::normal, "t", log);
  EXPECT_DEATH(std::thread([&] {
                 threadNameIs("intruder");
                 task->scheduleTask();
               }).join(),
               "Executing in wrong thread [0-9]+\\(intruder\\) pid [0-9]+ scheduler belongs to "
               "thread [0-9]+\\(" +
                   TaskSchedulerRoot::currentThreadName() + "\\) pid [0-9]+");
  root->threadSanityDisabledIs(true);
  std::thread([&] { task->scheduleTask(); }).join();
  root->threadSanityDisabledIs(false);
  Platform::doEventLoop();
  EXPECT_EQ(log, (Log{"t"}));
}

TEST(PerThreadRoot, EachThreadHasItsOwnRootAndLoop) {
  // Both threads hold their roots at the same time; each root is dropped on its own thread,
  // as a root's platform timer must be.
  std::latch bothHaveRoots(2);
  auto work = [&](const TaskSchedulerRoot** seen, Log* log) {
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootTarvo();
    EXPECT_EQ(schedulerRootTarvo(), root) << "one root per thread";
    EXPECT_EQ(root->schedulerName().str(),
              "thread:" + std::to_string(static_cast<unsigned long>(pthread_self())));
    *seen = root.get();
    bothHaveRoots.arrive_and_wait();
    int left = 100;
    auto task = loggingTask(root, TaskPriority::normal, "t", *log, [&] { return --left > 0; });
    task->scheduleTask();
    Platform::doEventLoop();
  };
  const TaskSchedulerRoot* seen[2] = {};
  Log logs[2];
  std::thread one(work, &seen[0], &logs[0]), two(work, &seen[1], &logs[1]);
  one.join();
  two.join();
  EXPECT_NE(seen[0], seen[1]);
  EXPECT_EQ(logs[0].size(), 100u);
  EXPECT_EQ(logs[1].size(), 100u);
}

std::shared_ptr<TaskSchedulerRoot> makeCustomRoot() {
  return schedulerRootTarvoNonShared("custom");
}
std::shared_ptr<TaskSchedulerRoot> makeOtherRoot() {
  return schedulerRootTarvoNonShared("other");
}

// An AssertException whose message (not its what(), which adds the backtrace) matches.
template <typename Matcher>
auto assertWithMessage(Matcher matcher) {
  return ::testing::Throws<AssertException>(::testing::Property(&Exception::message, matcher));
}

// The factory and the slots are process-wide and per thread: this runs in a child process.
TEST(PerThreadRoot, ExternalFactoryAndReplacementsAreRefusedWithTheirReasons) {
  if (!Tarvo::Test::isChildRun()) {
    auto result = Tarvo::Test::runSelf(
        "PerThreadRoot.ExternalFactoryAndReplacementsAreRefusedWithTheirReasons", {});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    return;
  }
  std::shared_ptr<TaskSchedulerRoot> mine = schedulerRootTarvo();
  // A thread with a root refuses a factory.
  EXPECT_THAT(
      [] { createExternalPerThreadSchedulerIs(&makeCustomRoot); },
      assertWithMessage(AllOf(HasSubstr("Per thread scheduler is already set, create backtrace\n"),
                              HasSubstr("Tarvo::schedulerRootTarvo()"))));

  std::thread([] {
    createExternalPerThreadSchedulerIs(&makeCustomRoot);
    createExternalPerThreadSchedulerIs(&makeCustomRoot);  // the same one again is fine
    EXPECT_EQ(schedulerRootTarvo()->schedulerName().str(), "custom");
    EXPECT_THAT([] { createExternalPerThreadSchedulerIs(&makeOtherRoot); },
                assertWithMessage(HasSubstr("Cannot change the function, already set to 0x")));
  }).join();

  schedulerRootTarvoIs(mine);  // the same root: nothing happens
  std::shared_ptr<TaskSchedulerRoot> other = makeOtherRoot();
  EXPECT_THAT([&] { schedulerRootTarvoIs(other); },
              assertWithMessage(HasSubstr("Existing per thread scheduler " +
                                          mine->schedulerName().str() + " new other")));
  EXPECT_EQ(schedulerRootTarvoIfExists(), mine);
  schedulerRootTarvoIs(nullptr);
  EXPECT_EQ(schedulerRootTarvoIfExists(), nullptr);
  schedulerRootTarvoIs(other);
  EXPECT_EQ(schedulerRootTarvo(), other);
}

TEST_F(RootTarvoTest, ForkedChildSchedulesAndRunsOnItsOwnLoop) {
  SocketPair pair;
  pair.put();
  ReadLogger watch(pair.fd[0], log, [] { return true; });  // watched by the parent while it forks
  auto task = loggingTask(root, TaskPriority::normal, "t", log);

  auto child = Tarvo::Test::runInChild([&] {
    // The child stops watching: on a base still sharing the parent's kernel state this
    // would silence the parent's watch too.
    watch.control->setReads(false);
    // Another thread of the child: the inherited root's wrong-thread check stands down.
    std::thread([&] { task->scheduleTask(); }).join();
    Platform::doEventLoop();
    return log == Log{"t"} ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;

  task->scheduleTask();
  Platform::doEventLoop(5.0);
  EXPECT_THAT(log, ::testing::UnorderedElementsAre("t", "F"))
      << "the parent's descriptor watch survived the child";
}

}  // namespace
}  // namespace Tarvo
