// Faults from outside the library's control: handlers that throw from every notification
// (and from their exception hooks), a process out of descriptors, a fork while work is
// pending, a trace file on a file system that is full or read-only.
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/FileDescriptorTask.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskControls.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerRootTarvo.h"
#include "Tarvo/TimerTask.h"
#include "Tarvo/UtilNet.h"
#include "common/TestSupport.h"
#include "scheduler/FdTestSupport.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo::Test {
namespace {

using ::testing::HasSubstr;

// Every handler kind at once. `fault` is what the next notification throws (nothing when
// empty); `hookFault` is what the exception hooks then throw in turn.
struct Faulty : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
  std::function<void()> fault, hookFault;
  Platform::FdControl* readControl = nullptr;
  int reads = 0, writes = 0, timeouts = 0, callbacks = 0, hooks = 0;

  // Drains and stops watching, so that the loop can run dry.
  void readFdEvent(int fd) override {
    ++reads;
    char buf[16];
    while (::read(fd, buf, sizeof buf) > 0) {
    }
    readControl->setReads(false);
    raise();
  }
  void writeFdEvent(int) override { ++writes, raise(); }
  void timeout() override { ++timeouts, raise(); }
  void callback() override { ++callbacks, raise(); }
  bool handleFdException(int) override { return hook(); }
  bool handleTimeoutException() override { return hook(); }
  bool handleCallbackException() override { return hook(); }
  void raise() {
    if (fault) {
      fault();
    }
  }
  bool hook() {
    ++hooks;
    if (hookFault) {
      hookFault();
    }
    return false;
  }
};

// Runs the loop until it returns normally, counting the exceptions that left it.
int drainLoop(const std::function<void()>& loop = [] { Platform::doEventLoop(); }) {
  int thrown = 0;
  for (int pass = 0; pass < 64; ++pass) {
    try {
      loop();
      return thrown;
    } catch (...) {
      ++thrown;
    }
  }
  ADD_FAILURE() << "the loop kept throwing";
  return thrown;
}

// Each kind of fault from each notification, a task and a timer task, then from the exception
// hooks too: every one leaves the loop, none is lost, and afterwards the loop and every control
// work as before. The task-backed controls and the descriptor tasks, which handle exceptions
// their own way, follow.
TEST(FaultInjection, ThrowingHandlersOfEveryKindLeaveTheLoopAndEveryControlUsable) {
  const std::vector<std::function<void()>> faults = {
      [] { throw 7; },
      [] { throw std::runtime_error("boom"); },
      [] { debugAndThrowAssertException(nullptr, 0, "assert", "Fault", "f", 1); },
      [] { RuntimeException::throwException("runtime"); },
  };
  SocketPair pair;
  Faulty h;
  auto fd = Platform::getFdControl(&h);
  auto timer = Platform::getTimerControl(&h);
  auto callback = Platform::getCallbackControl(&h);
  auto root = schedulerRootTarvoNonShared("faults");
  std::function<void()> taskFault;
  auto task = std::make_shared<FnTask>(root, TaskPriority::normal, "faulty", [&](FnTask&) {
    if (taskFault) {
      taskFault();
    }
  });
  struct FaultyTimer : TimerTask {
    using TimerTask::TimerTask;
    void taskExecute() override {
      ++runs;
      if (fault) {
        fault();
      }
    }
    std::function<void()> fault;
    int runs = 0;
  };
  auto timerTask = std::make_shared<FaultyTimer>(root, TaskPriority::high, "faulty-timer");
  h.readControl = fd.get();
  fd->setFd(pair.fd[0]);
  auto armAll = [&] {
    pair.put();
    fd->setReads(true);
    fd->setWrites(true);
    timer->setTimeout(0);
    callback->requestCallback();
    task->scheduleTask();
    timerTask->scheduleTaskDelay(1e-6);
  };
  auto runCounts = [&] {
    return std::vector<int>{h.reads,     h.writes,   h.timeouts,
                            h.callbacks, task->runs, timerTask->runs};
  };
  int rounds = 0;
  for (bool hookThrows : {false, true}) {
    for (const auto& fault : faults) {
      h.fault = fault;
      h.hookFault = hookThrows ? faults[(++rounds) % faults.size()] : nullptr;
      taskFault = timerTask->fault = fault;
      armAll();
      // Four notifications, a task and a timer task, each throwing once: six exceptions leave
      // the loop, each ending its own loop call.
      EXPECT_EQ(drainLoop(), 6);
      EXPECT_FALSE(timerTask->timerRunning());
    }
  }
  EXPECT_EQ(runCounts(), std::vector<int>(6, 8));
  EXPECT_EQ(h.hooks, 32);
  h.fault = h.hookFault = taskFault = timerTask->fault = nullptr;
  armAll();
  EXPECT_EQ(drainLoop(), 0);
  EXPECT_EQ(runCounts(), std::vector<int>(6, 9));
  EXPECT_EQ(root->runnableTaskCount(), 0);

  // The task-backed controls do not ask the hooks: a throwing timer or callback handler leaves
  // the loop and fires again when asked; a descriptor handler whose hook swallows its
  // exceptions keeps being told about readiness.
  struct Swallowing : Faulty {
    bool handleFdException(int) override { return ++hooks, true; }
  } backed;
  backed.fault = [] { throw std::runtime_error("task-backed"); };
  SocketPair backedPair;
  auto backedTimer = Platform::getTimerControl(&backed, root, TaskPriority::normal, "timer");
  auto backedCallback = Platform::getCallbackControl(&backed, root, TaskPriority::normal, "cb");
  auto backedFd = Platform::getFdControl(&backed, root, TaskPriority::normal, "fd");
  backed.readControl = backedFd.get();
  for (int round = 1; round <= 3; ++round) {
    backedTimer->setTimeout(0);
    backedCallback->requestCallback();
    backedPair.put();
    backedFd->setReads(true);
    backedFd->setFd(backedPair.fd[0]);
    EXPECT_EQ(drainLoop(), 2);
    EXPECT_EQ(std::vector<int>({backed.timeouts, backed.callbacks, backed.reads, backed.hooks}),
              std::vector<int>(4, round));
  }

  // A descriptor task whose hook threw stays unusable by design (its later runs throw
  // "Executing task already set"); another one beside it keeps working.
  SocketPair broken, working;
  auto bad = std::make_shared<FnFdTask>(root, "bad", [](FnFdTask&) { throw 7; });
  auto good = std::make_shared<FnFdTask>(root, "good", [](FnFdTask& t) { drain(t.taskWatchFd()); });
  bad->taskWatchFdIs(broken.fd[0]);
  good->taskWatchFdIs(working.fd[0]);
  // Readiness makes a sub-task runnable; the run follows on a later pass.
  auto passesUntil = [](const std::function<bool()>& done) {
    for (int pass = 0; pass < 10 && !done(); ++pass) {
      Platform::doEventLoop(0.0);
    }
    return done();
  };
  broken.put();
  EXPECT_THROW(passesUntil([&] { return bad->reads > 0; }), int);
  bad->taskWatchFdDel();
  working.put("abc");
  EXPECT_TRUE(passesUntil([&] { return good->reads == 1; }));
  working.put("d");
  EXPECT_TRUE(passesUntil([&] { return good->reads == 2; }));
  EXPECT_EQ(bad->reads, 1);
  EXPECT_EQ(root->runnableTaskCount(), 0);
}

// A notification that destroys its own control and whose exception hook then throws: the
// control is gone while the exception is still on its way out.
TEST(FaultInjection, HookThrowingAfterItsControlWasDestroyedReachesTheLoopCaller) {
  Faulty h;
  std::shared_ptr<Platform::CallbackControl> callback = Platform::getCallbackControl(&h);
  std::shared_ptr<Platform::TimerControl> timer = Platform::getTimerControl(&h);
  h.hookFault = [] { throw std::runtime_error("from the hook"); };
  h.fault = [&] {
    callback.reset();
    timer.reset();
    throw 7;
  };
  callback->requestCallback();
  EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
  EXPECT_EQ(h.callbacks, 1);
  timer = Platform::getTimerControl(&h);
  timer->setTimeout(0);
  EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
  EXPECT_EQ(h.timeouts, 1);
  EXPECT_EQ(drainLoop(), 0);
}

// Out of descriptors: a thread that needs its event base, controls, a root and sockets gets
// a clear exception or -1 for each, and leaves nothing behind; once descriptors are free the
// same calls succeed. In a child, since the limit is process-wide.
TEST(FaultInjection, DescriptorExhaustionGivesClearErrorsAndLeavesNothingHalfBuilt) {
#if defined(__SANITIZE_ADDRESS__)
  // UBSan proves a vtable readable through a pipe of its own before its dynamic-type check;
  // with no descriptor left that fails and it reports every virtual call.
  GTEST_SKIP() << "the sanitizers' checks need descriptors of their own";
#endif
  ChildResult child = runInChild([] {
    std::ostringstream out;
    std::thread([&] {
      // Once first, so that the sanitizers' own checks of these paths (which need a pipe of
      // their own) are done before no descriptor is left.
      ::close(Util::createAndBindSocket(nullptr, "tarvo-fault-warm"));
      const int before = openFdCount();
      rlimit old{};
      ::getrlimit(RLIMIT_NOFILE, &old);
      rlimit low = old;
      low.rlim_cur = static_cast<rlim_t>(before + 16);
      ::setrlimit(RLIMIT_NOFILE, &low);
      std::vector<int> taken;  // every descriptor left
      for (int fd; (fd = ::eventfd(0, EFD_CLOEXEC)) >= 0;) {
        taken.push_back(fd);
      }
      Faulty timed;
      auto describe = [&](const char* what, auto call) {
        try {
          call();
          out << what << ":ok ";
        } catch (const std::exception& e) {
          const std::string text = e.what();
          out << what << ":" << text.substr(0, text.find('\n')) << "|";
        }
      };
      describe("timer", [&] { Platform::getTimerControl(&timed); });
      describe("root", [&] { schedulerRootTarvoNonShared("starved"); });
      describe("bind", [&] { Util::createAndBindSocket(nullptr, "tarvo-fault-starved"); });
      int sv[2];
      out << "socketpair:" << ::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) << (errno == EMFILE);
      for (int fd : taken) {
        ::close(fd);
      }
      ::setrlimit(RLIMIT_NOFILE, &old);
      out << " fds:" << (openFdCount() - before);
      out << " root:" << (schedulerRootTarvoIfExists() == nullptr);
      // With descriptors back, the same calls work on the same thread.
      auto timer = Platform::getTimerControl(&timed);
      timer->setTimeout(0);
      Platform::doEventLoop();
      int sd = Util::createAndBindSocket(nullptr, "tarvo-fault-starved");
      out << " after:" << timed.timeouts << (sd >= 0);
      ::close(sd);
    }).join();
    std::cout << out.str();
    return 0;
  });
  ASSERT_EQ(child.exitCode, 0) << child.err;
  EXPECT_THAT(child.out, HasSubstr("timer:Tarvo::RuntimeException(\"event_base_new failed: Too "
                                   "many open files\")|"));
  EXPECT_THAT(child.out, HasSubstr("root:Tarvo::RuntimeException(\"event_base_new failed: Too "
                                   "many open files\")|"));
  EXPECT_THAT(child.out, HasSubstr("bind:Tarvo::AssertException(\"Util:createAndBindSocket:"));
  EXPECT_THAT(
      child.out,
      HasSubstr(" WriterLock::createAndBindSocket() socket() failed: Too many open files\")|"));
  EXPECT_THAT(child.out, HasSubstr("socketpair:-11 fds:0 root:1 after:11"));
}

// A fork while timers are armed and tasks queued: the child runs all of it on its own loop;
// the parent's timers and queue are untouched by that and run afterwards, each once.
TEST(FaultInjection, ForkWithArmedTimersAndQueuedTasksLeavesBothSidesWhole) {
  Platform::setFastForward(true);
  const std::shared_ptr<void> modeOff(nullptr, [](void*) { Platform::setFastForward(false); });
  std::string log;
  Faulty first, second;
  first.fault = [&] { log += 'a'; };
  second.fault = [&] { log += 'b'; };
  auto t1 = Platform::getTimerControl(&first);
  auto t2 = Platform::getTimerControl(&second);
  t1->setTimeout(30);
  t2->setTimeout(60);
  auto root = schedulerRootTarvoNonShared("fork");
  auto taskA = loggingTask(root, TaskPriority::high, "A", log);
  auto taskB = loggingTask(root, TaskPriority::low, "B", log);
  taskA->scheduleTask();
  taskB->scheduleTask();

  ChildResult child = runInChild([&] {
    Platform::doEventLoop();
    std::cout << log << root->runnableTaskCount();
    return 0;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  EXPECT_EQ(child.out, "ABab0");
  EXPECT_EQ(log, "");
  EXPECT_GT(t1->remainingTimeout(), 20);
  EXPECT_EQ(root->runnableTaskCount(), 2);
  Platform::doEventLoop();
  EXPECT_EQ(log, "ABab");
  EXPECT_EQ(root->runnableTaskCount(), 0);
}

// The trace file on a tmpfs mounted in a private mount namespace: lines that no longer fit
// once it is full, and every line when it is mounted read-only, go to the standard error
// stream. Needs root for the namespace and the mount.
TEST(FaultInjection, TraceFileOnAFullOrReadOnlyFileSystemFallsBackToStandardError) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root: a private mount namespace and a small tmpfs";
  }
  TempDir dir;
  for (const char* options : {"size=8k", "size=8k,ro"}) {
    ChildResult child = runInChild([&] {
      if (::unshare(CLONE_NEWNS) != 0 ||
          ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          ::mount("tarvo-fault", dir.path().c_str(), "tmpfs", 0, options) != 0) {
        std::cout << "cannot mount: " << std::strerror(errno);
        return 3;
      }
      std::string file = dir.file("trace");
      ::setenv("TRACEFILE", file.c_str(), 1);
      Platform::clearTraceFormat();
      Platform::setupTarvoDebug("FaultTrace/0");
      Platform::DebugHandler* h = Platform::getDebugHandler("FaultTrace");
      const std::string filler(200, 'x');
      for (int i = 0; i < 100; ++i) {
        TARVO_TRACE(h, 0, "line " << i << " " << filler);
      }
      Platform::destroyDebugHandler(h);
      return 0;
    });
    ASSERT_EQ(child.exitCode, 0) << options << ": " << child.out << child.err;
    // 100 lines of 208 bytes or so do not fit in 8 KiB: the last ones, at least, are on the
    // standard error stream; read-only, all of them.
    EXPECT_THAT(child.err, HasSubstr("line 99 xxx")) << options;
    if (std::string(options).find("ro") != std::string::npos) {
      EXPECT_THAT(child.err, HasSubstr("line 0 xxx"));
      EXPECT_THAT(child.err, HasSubstr("Error opening TRACEFILE="));
    }
  }
}

}  // namespace
}  // namespace Tarvo::Test
