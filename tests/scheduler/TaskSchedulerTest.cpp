#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>

#include "Tarvo/Exception.h"
#include "Tarvo/IntrusiveBookmarkLinkedList.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/QuantumViolation.h"
#include "scheduler/SchedulerTestSupport.h"

namespace Tarvo {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Test::FnTask;
using Test::loggingTask;

TEST(TaskPriorityTest, NamesStreamFormsAndAbortsOutOfRange) {
  EXPECT_EQ(::testing::PrintToString(TaskPriority(TaskPriority::scavenge)), "scavenge");
  TaskPriority p(TaskPriority::oneBeyondLast);
  EXPECT_EQ(p.toStrep() + p.oneCharString(), "oneBeyondLast-");
  EXPECT_EQ(::testing::PrintToString(p), "invalidPriority=5");
  EXPECT_DEATH(TaskPriority(7).toStrep(), "toStrep.*unexpected priority value invalidPriority=7");
  EXPECT_DEATH(TaskPriority(200).oneCharString(),
               "oneCharString.*unexpected priority invalidPriority=200");
  EXPECT_EQ(TaskKey().toStrep(), "@NULL");
  EXPECT_EQ(TaskKey(uintptr_t{0xabc}).toStrep(), "@0x00000abc");
  EXPECT_EQ(TaskKey(uintptr_t{0x7f12345678ab}).toStrep(), "@0x7f12345678ab");
}

struct Item {
  ListLinkNode<Item> queueLink_;
  BookmarkListLinkNode<Item> registeredLink_;
};
using Queue = List<Item, ListLinkNode<Item>, &Item::queueLink_>;
using Registry = BookmarkList<Item, BookmarkListLinkNode<Item>, &Item::registeredLink_>;

TEST(IntrusiveListTest, ElementsUnlinkThemselvesBookmarksAreSkippedAndDoubleLinkingAborts) {
  Item a, b, c;
  Queue q, other;
  {
    Item d;
    q.pushBack(d);
    q.pushBack(b);
  }
  EXPECT_EQ(q.front(), &b);
  EXPECT_DEATH(other.pushBack(b), "!\\( element\\.\\*ptrToLinkNode \\)\\.isLinked\\(\\)");

  Registry r;
  Registry::Bookmark mark;
  mark.insertBefore(r.begin());
  EXPECT_FALSE(r.empty());
  EXPECT_EQ(r.front(), nullptr);
  r.pushFront(c);
  r.pushFront(b);
  r.pushFront(a);
  mark.unlink();
  mark.insertBefore(Registry::ConstIterator(&r, b.registeredLink_.hook_.this_ptr()));
  EXPECT_EQ(r.next(a), &b);  // traversals step over the bookmark
  b.registeredLink_.unlink();
  EXPECT_EQ(r.elementAfter(mark), &c);
  EXPECT_DEATH(mark.insertBefore(r.begin()), "!link\\.isLinked\\(\\)");
}

// The virtual slot a member function occupies (Itanium C++ ABI: a pointer to a virtual member
// holds one plus its byte offset in the table).
template <typename Member>
std::ptrdiff_t slotOf(Member member) {
  static_assert(sizeof(member) == 2 * sizeof(std::ptrdiff_t));
  std::ptrdiff_t words[2];
  std::memcpy(words, &member, sizeof words);
  return (words[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(BinaryInterfaceTest, VirtualSlotsKeepTheirOrder) {
  // Lists: isBookmark, then the destructor's two entries.
  EXPECT_EQ(slotOf(&Queue::isBookmark), 0);
  EXPECT_EQ(slotOf(&Registry::isBookmark), 0);
  EXPECT_EQ(slotOf(&TaskScheduler::TaskList::isBookmark), 0);
  // Tasks: six operations, the destructor, then the four of TaskImpl.
  EXPECT_EQ(slotOf(&_TaskBase::taskScheduled), 0);
  EXPECT_EQ(slotOf(&_TaskBase::handleResetStats), 5);
  EXPECT_EQ(slotOf(&TaskImpl::scheduleTask), 8);
  EXPECT_EQ(slotOf(&TaskImpl::taskExecute), 11);
  // Schedulers: resetStatsInProgress first, taskRegister and the destructor last, and the
  // root's hooks and timer operations right after them.
  std::ptrdiff_t reg = slotOf(&TaskScheduler::taskRegister);
  EXPECT_EQ(slotOf(&TaskScheduler::resetStatsInProgress), 0);
  EXPECT_EQ(slotOf(&TaskScheduler::handleTaskForceYieldInTest), reg - 1);
  EXPECT_EQ(slotOf(&TaskScheduler::requestSchedulerRun), reg - 2);
  EXPECT_EQ(slotOf(&TaskSchedulerRoot::taskCreated), reg + 3);
  EXPECT_EQ(slotOf(&TaskSchedulerRoot::timerExpiry), reg + 11);
}

class SchedulerTest : public ::testing::Test {
 protected:
  std::shared_ptr<TaskSchedulerRootManual> root = std::make_shared<TaskSchedulerRootManual>("root");
  std::string log;  // names of the tasks run, or 'y'/'.' for each taskShouldYield() answer
  std::shared_ptr<FnTask> task =
      std::make_shared<FnTask>(root, TaskPriority::normal, "task", [this](FnTask& t) {
        for (int i = 0; i < 6; ++i) {
          log += t.taskShouldYield() ? 'y' : '.';
        }
      });

  TaskTimePoint end;
  // Runs `task` as if its run had started `d` before now.
  void ranFor(std::chrono::nanoseconds d) { task->taskDoRun(TaskClock::now() - d, &end); }
};

TEST_F(SchedulerTest, RunsCountQuantumViolationsAtTwiceAndFiveTimesItAndWorkDone) {
  EXPECT_EQ(task->taskQuantum(), 20ms);
  task->taskQuantumIs(1s);
  task->taskQuantumNoCheckIs(5s);
  EXPECT_EQ(task->taskQuantum(), 5s);
  EXPECT_DEATH(task->taskQuantumIs(1s + 1ns), "Quantum: 1000000001ns");
  EXPECT_DEATH(task->taskQuantumNoCheckIs(0ns), "Quantum: 0ns");
  root->defaultTaskQuantumIs(7ms);
  EXPECT_EQ(std::make_shared<FnTask>(root, TaskPriority::normal, "later")->taskQuantum(), 7ms);
  EXPECT_THAT([&] { root->defaultTaskQuantumIs(-1ns); },
              ::testing::ThrowsMessage<AssertException>(
                  ::testing::ContainsRegex("defaultTaskQuantumIs:[0-9]+: Quantum: -1ns")));
  EXPECT_EQ(root->defaultTaskQuantum(), 7ms);
  root->defaultTaskQuantumIs(0ns);  // always asked to yield, never a violation
  auto zero = std::make_shared<FnTask>(root, TaskPriority::normal, "zero",
                                       [&](FnTask& t) { log += t.taskShouldYield() ? 'y' : '.'; });
  zero->taskDoRun(TaskClock::now() - 1s, &end);
  EXPECT_EQ(log, "y");
  EXPECT_EQ(zero->taskQuantumViolation200() + zero->taskQuantumViolation500(), 0u);
  log.clear();

  // Real runs land a little past their nominal length; the exact edges are checked on
  // quantumViolation() below.
  task->taskQuantumIs(100ms);
  for (auto [ran, v200, v500] :
       {std::tuple{190ms, 0u, 0u}, std::tuple{250ms, 1u, 0u}, std::tuple{500ms, 1u, 1u}}) {
    ranFor(ran);
    EXPECT_EQ(task->taskQuantumViolation200(), v200) << ran.count();
    EXPECT_EQ(task->taskQuantumViolation500(), v500) << ran.count();
  }
  EXPECT_GE(task->taskRunTimeHighWaterMark(), 500ms);
  EXPECT_LT(task->taskRunTimeHighWaterMark(), 550ms);
  EXPECT_GE(task->taskRunTimeTotal(), 940ms);

  task->taskWorkCountInc(10);
  task->taskWorkCountInc(20);
  EXPECT_FLOAT_EQ(task->taskWorkCountDecayAvg(), 11.0f);
  task->taskWorkCountInc(5000000000ull);
  task->taskWorkPendingIs(4294967295u);
  TaskStat stat = task->getStats();
  EXPECT_EQ(stat.taskWorkCountTotal(), 5000000030ull);
  EXPECT_EQ(stat.taskWorkCountHighWaterMark().value(), 705032704u);  // the low 32 bits
  EXPECT_EQ(stat.taskWorkPendingHighWaterMark().value(), 4294967294u);
  task->resetStats();
  EXPECT_FALSE(task->getStats().taskWorkCountHighWaterMark().recorded());
}

TEST(QuantumViolationTest, CountsFromTwiceTheQuantumAnd500FromFiveTimesWithoutOverflow) {
  using V = QuantumViolation;
  constexpr nanoseconds q = 100ms, max = nanoseconds::max(), half = max / 2;  // 2 * half == max - 1
  for (auto [quantum, elapsed, expected] : {std::tuple{q, 2 * q - 1ns, V::none},
                                            {q, 2 * q, V::over200},
                                            {q, 5 * q - 1ns, V::over200},
                                            {q, 5 * q, V::over500},
                                            {1ns, 1ns, V::none},
                                            {1ns, 2ns, V::over200},
                                            {1ns, 5ns, V::over500},
                                            {0ns, 0ns, V::none},
                                            {0ns, max, V::none},
                                            {half, 2 * half - 1ns, V::none},
                                            {half, 2 * half, V::over200},
                                            {half, max, V::over200},
                                            {max, max, V::none}}) {
    SCOPED_TRACE(::testing::Message() << quantum << " " << elapsed);
    EXPECT_EQ(quantumViolation(elapsed, quantum), expected);
  }
}

TEST_F(SchedulerTest, YieldFollowsTestRatioOrQuantumAndAbortsOutsideARun) {
  EXPECT_TRUE(task->taskShouldYield()) << "before any run the real-time rule applies";
  task->taskTestYieldRatioIs(3);
  task->taskRunFromTest();
  root->taskTestYieldRatioIs(2);  // the task's own ratio wins over the root's
  task->taskRunFromTest();
  task->taskTestYieldRatioIs(0);  // without one, the root's applies afresh
  task->taskRunFromTest();
  EXPECT_EQ(log, "..y..y..y..y.y.y.y");
  root->taskTestYieldRatioIs(0);
  root->virtualTimeIs(true);
  EXPECT_EQ(task->taskShouldYieldMode(), TaskImpl::virtualTime);
  EXPECT_THAT([&] { task->taskRunFromTest(); },
              ::testing::Throws<UnimplementedException>(
                  ::testing::Property(&Exception::message, "No support for virtual timestamps")));
  root->virtualTimeIs(false);
  log.clear();
  task->taskQuantumIs(1s);
  ranFor(0s);
  ranFor(2s);
  ranFor(-1h);  // a start in the future also yields
  EXPECT_EQ(std::string() + log[0] + log[6] + log[12], ".yy");
  EXPECT_DEATH(task->taskShouldYield(), "taskCurrentlyRunning: 0 taskRunCount: 6");
}

TEST_F(SchedulerTest, SuspendResumeRunFromTestAndDestructionKeepTheQueueConsistent) {
  task->taskSuspendedIs(true);
  task->scheduleTask();
  EXPECT_FALSE(task->taskScheduled());
  task->taskSuspendedIs(false);
  EXPECT_TRUE(task->taskScheduled());
  task->taskSuspendedIs(true);
  EXPECT_EQ(root->runnableTaskCount(), 0);
  task->taskSuspendedIs(false);
  task->taskRunFromTest();  // a queued task is taken off its queue like a pick
  EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 1u);
  EXPECT_EQ(root->runnableTaskCount(), 0);
  task->scheduleTask();
  task.reset();  // a destroyed task leaves its queue and registration
  EXPECT_EQ(root->runnableTaskCount(), 0);
  EXPECT_EQ(root->registeredTaskCount(), 0u);
}

TEST_F(SchedulerTest, LowGetsItsTurnAfterNineNormalsScavengeWaitsAndAbsoluteNeverYields) {
  auto normal = loggingTask(root, TaskPriority::normal, "N", log, [&] { return log.size() < 30; });
  auto low = loggingTask(root, TaskPriority::low, "L", log);
  auto scavenge = loggingTask(root, TaskPriority::scavenge, "S", log);
  normal->scheduleTask();
  low->scheduleTask();
  scavenge->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(log, std::string(9, 'N') + "L" + std::string(20, 'N') + "S");

  log.clear();
  auto absolute =
      loggingTask(root, TaskPriority::absolute, "A", log, [&] { return log.size() < 50; });
  low->scheduleTask();
  absolute->scheduleTask();
  root->runUntilIdle();
  EXPECT_EQ(log, std::string(50, 'A') + "L");
}

TEST_F(SchedulerTest, BumpsWeighEveryWaitingTaskOfBothPriorities) {
  // Two high tasks always waiting against three, then two, then one normal: the normal turn
  // comes when 8 * normals * consecutive > 64 * 2.
  auto again = [] { return true; };
  auto h1 = loggingTask(root, TaskPriority::high, "H", log, again);
  auto h2 = loggingTask(root, TaskPriority::high, "H", log, again);
  std::vector<std::shared_ptr<FnTask>> normals;
  for (int i = 0; i < 3; ++i) {
    normals.push_back(loggingTask(root, TaskPriority::normal, "N", log));
    normals.back()->scheduleTask();
  }
  h1->scheduleTask();
  h2->scheduleTask();
  root->runUntilIdle(35);
  EXPECT_EQ(log,
            std::string(6, 'H') + "N" + std::string(9, 'H') + "N" + std::string(17, 'H') + "N");
  h1->unscheduleTask();
  h2->unscheduleTask();
  root->runUntilIdle();  // a run that finds the queues empty restarts their counts

  // Two normal tasks always waiting against four, three, two lows: waiting(low) * consecutive
  // > 8 * 2.
  log.clear();
  normals[0] = loggingTask(root, TaskPriority::normal, "N", log, again);
  normals[1] = loggingTask(root, TaskPriority::normal, "N", log, again);
  std::vector<std::shared_ptr<FnTask>> lows;
  for (int i = 0; i < 4; ++i) {
    lows.push_back(loggingTask(root, TaskPriority::low, "L", log));
    lows.back()->scheduleTask();
  }
  normals[0]->scheduleTask();
  normals[1]->scheduleTask();
  root->runUntilIdle(23);
  EXPECT_EQ(log, std::string(5, 'N') + "L" + std::string(6, 'N') + "L" + std::string(9, 'N') + "L");
  normals[0]->unscheduleTask();
  normals[1]->unscheduleTask();
}

TEST_F(SchedulerTest, LatenciesRecordTheLastAndTheLongestWait) {
  auto now = TaskClock::now();
  task->scheduleTask();
  EXPECT_EQ(root->pickOneTask(now + 50ms, TaskPriority::absolute), task.get());
  EXPECT_GE(task->taskLastSchedulingLatency(), 49ms);
  EXPECT_LT(task->taskLastSchedulingLatency(), 60ms);
  task->scheduleTask();
  task->unscheduleTask();  // leaving the queue unpicked records the wait too
  EXPECT_LT(task->taskLastSchedulingLatency(), 10ms);
  EXPECT_GE(task->taskSchedulingLatencyHighWaterMark(), 49ms);
  TaskStat stat = task->getStats();
  EXPECT_EQ(stat.taskLastSchedulingLatency(), task->taskLastSchedulingLatency());
  EXPECT_EQ(stat.taskSchedulingLatencyHighWaterMark(), task->taskSchedulingLatencyHighWaterMark());
  // The scheduler's own latency runs from the run request to the run.
  auto before = root->schedulerLatencyHighWaterMark();
  task->scheduleTask();
  auto spinUntil = TaskClock::now() + 2ms;
  while (TaskClock::now() < spinUntil) {
  }
  root->runOnce();
  EXPECT_GE(root->schedulerLatencyHighWaterMark(), std::max(before, nanoseconds(2ms)));
  task->resetStats();
  EXPECT_EQ(task->taskSchedulingLatencyHighWaterMark(), 0ns);
}

TEST_F(SchedulerTest, RunRequestsFollowIdleAndRunnableChangesAndSplitQueuesMergeInOrder) {
  auto a = loggingTask(root, TaskPriority::normal, "a", log);
  auto b = loggingTask(root, TaskPriority::normal, "b", log);
  a->scheduleTask();
  a->scheduleTask();
  b->scheduleTask();
  EXPECT_EQ(root->runRequestCount(), 1u);
  EXPECT_EQ(root->runUntilIdle(), 3u);  // the third run finds nothing: idle, no new request
  EXPECT_EQ(root->runRequestCount(), 3u);
  EXPECT_EQ(root->runTaskCount(TaskPriority::normal), 2u);
  a->scheduleTask();
  EXPECT_EQ(root->runRequestCount(), 4u);
  EXPECT_EQ(root->runUntilIdle(), 2u);
  EXPECT_EQ(log, "aba");

  // Split queues hide newly scheduled tasks; the merge keeps the held-back ones first.
  a->scheduleTask();
  b->scheduleTask();
  root->taskRunQueuesMovePersistentToTemporary();
  task->scheduleTask();
  auto now = TaskClock::now();
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), a.get());
  EXPECT_THAT([&] { root->taskRunQueuesMovePersistentToTemporary(); },
              ::testing::ThrowsMessage<AssertException>(::testing::ContainsRegex(
                  "\"TaskScheduler:movePersistentToTemporary:[0-9]+: The temporary run queue "
                  "should always be empty at this point")));
  root->taskRunQueuesMoveTemporaryToPersistent();
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), b.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), task.get());
  EXPECT_EQ(root->pickOneTask(now, TaskPriority::absolute), nullptr);
}

TEST_F(SchedulerTest, RunSurvivesThrowingTasksUnownedTasksAndOwnersLettingGo) {
  TaskKey seen;
  auto bad = std::make_shared<FnTask>(root, TaskPriority::normal, "bad", [&](FnTask&) {
    seen = root->currentTask();
    throw std::runtime_error("boom");
  });
  bool alive = false;
  task = std::make_shared<FnTask>(root, TaskPriority::normal, "once", [&](FnTask& t) {
    task.reset();
    alive = t.taskMagicNumber() == TaskImpl::taskMagicNumberConstructed;
  });
  FnTask unowned(root, TaskPriority::high, "unowned");  // no std::shared_ptr owns it
  unowned.scheduleTask();
  bad->scheduleTask();
  task->scheduleTask();
  EXPECT_THROW(root->runOnce(), std::bad_weak_ptr);
  EXPECT_TRUE(root->runPending()) << "a task that cannot be held must not stall the others";
  EXPECT_EQ(unowned.runs, 0);
  EXPECT_THROW(root->runOnce(), std::runtime_error);
  EXPECT_EQ(seen, TaskKey(static_cast<const _TaskBase*>(bad.get())));
  EXPECT_EQ(root->currentTask(), TaskKey());
  EXPECT_FALSE(bad->taskCurrentlyRunning());
  EXPECT_TRUE(root->runPending()) << "the root asks for the next run after a throwing task";
  root->runUntilIdle();
  EXPECT_TRUE(alive);
  EXPECT_EQ(root->deadTaskStatForTest("once").taskRunCount(), 1u);
}

TEST(SchedulerForceYieldTest, BookkeepingReportsEmptyToNonEmptyChanges) {
  struct CountingRoot : TaskSchedulerRootManual {
    using TaskSchedulerRootManual::TaskSchedulerRootManual;
    void handleTaskForceYieldInTest() override { ++calls; }
    int calls = 0;
  };
  auto counting = std::make_shared<CountingRoot>("counting");
  auto a = std::make_shared<FnTask>(counting, TaskPriority::normal, "a");
  auto b = std::make_shared<FnTask>(counting, TaskPriority::normal, "b");
  a->taskForceYieldInTestIs(true);
  b->taskTestYieldRatioIs(4);
  a->taskForceYieldInTestIs(false);
  EXPECT_EQ(counting->calls, 1);
  b.reset();  // a dying task leaves the set
  EXPECT_EQ(counting->calls, 2);
  EXPECT_FALSE(counting->tasksForceYieldInTest());
}

TEST_F(SchedulerTest, MisuseOfTasksCountsPrioritiesThreadsAndRegistryAborts) {
  struct Plain : Task {
    using Task::Task;
    void taskExecute() override { std::destroy_at(this); }
  };
  EXPECT_DEATH(Plain(std::shared_ptr<TaskScheduler>(), TaskPriority::low, "x"),
               "Need a TaskScheduler");
  alignas(Plain) unsigned char storage[sizeof(Plain)];
  auto* t = std::construct_at(reinterpret_cast<Plain*>(storage), root, TaskPriority::normal, "x");
  EXPECT_DEATH(t->taskRunFromTest(),
               "Task: @0x[0-9a-f]+ taskMagicNumber: 3735936685 taskMagicNumberConstructed: "
               "1119771390");
  std::destroy_at(t);

  EXPECT_DEATH(root->tasksPerPriorityDec(TaskPriority::low), "Priority: low count: 0");
  EXPECT_DEATH(FnTask(root, TaskPriority(5), "bad"), "invalidPriority=5");
  auto other = std::make_shared<TaskSchedulerRootManual>("other");
  auto b = std::make_shared<FnTask>(other, TaskPriority::normal, "b");
  auto c = std::make_shared<FnTask>(other, TaskPriority::low, "c");
  EXPECT_EQ(root->taskGroupCount(), 0u);
  root->registerScheduler(other.get());
  EXPECT_EQ(root->taskGroupCount(), 1u);
  EXPECT_EQ(root->totalRegisteredTaskCount(), 3u);
  EXPECT_DEATH(root->registerScheduler(other.get()), "insert failed for other");
  root->unregisterScheduler(other.get());
  EXPECT_EQ(root->taskGroupCount(), 0u);
  EXPECT_DEATH(root->unregisterScheduler(other.get()), "delete failed for other");
  // While an auxiliary thread is registered, any thread may use the tree.
  Platform::auxThreadCountInc();
  std::thread([&] { task->scheduleTask(); }).join();
  Platform::auxThreadCountDec();
  EXPECT_TRUE(task->taskScheduled());
}

}  // namespace
}  // namespace Tarvo
