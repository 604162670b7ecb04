#include <gtest/gtest.h>

#include "Tarvo/ConstStringCache.h"
#include "Tarvo/TaskStat.h"

namespace Tarvo {
namespace {

using std::chrono::nanoseconds;
using S = TaskStat::TaskStatus;

TaskStat record(ConstStringRef name, uint32_t runs, TaskMaybeU32 workHigh, int64_t runHigh,
                uint8_t status = 0, TaskPriority priority = TaskPriority::high) {
  return TaskStat(std::move(name), TaskKey(uintptr_t{0x10}), priority, runs,
                  nanoseconds(100 * runs), 7 * runs, 1.5f * runs, workHigh, runs + 1, workHigh, 1,
                  2, nanoseconds(runHigh), nanoseconds(runs), nanoseconds(runHigh * 2), S(status));
}

TEST(TaskStatTest, StatusStringRanksRunningSuspendedAndTimerStates) {
  EXPECT_EQ(TaskStat().taskName(), "");
  EXPECT_EQ(TaskStat().taskStatusString(), " a");
  uint8_t timer = S::taskTimerBit, armed = S::taskTimerRunningBit, queued = S::taskOnRunQueueBit;
  struct Case {
    uint8_t bits;
    TaskPriority priority;
    const char* expected;
  } cases[] = {
      {uint8_t(timer | armed | queued), TaskPriority::high, "TH"},
      {uint8_t(timer | armed), TaskPriority::high, "Th"},
      {uint8_t(timer | queued), TaskPriority::high, "tH"},
      {uint8_t(S::taskCurrentlyRunningBit | S::taskSuspendedBit | timer), TaskPriority::normal,
       "*n"},
      {uint8_t(S::taskSuspendedBit | timer | queued), TaskPriority::scavenge, "SS"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(record(ConstStringRef(), 0, 0, 0, c.bits, c.priority).taskStatusString(), c.expected);
  }
}

TEST(TaskStatTest, MergeSumsCountsKeepsLatestAndMaximaAndAddsOneDeath) {
  ConstStringCache cache;
  ConstStringRef name = cache.intern("conn");
  TaskStat a = record(name, 3, TaskMaybeU32(), 50, 1);
  a.taskDeadCountIs(1);
  TaskStat b = record(name, 4, TaskMaybeU32(9), 20, 2);
  b.taskDeadCountIs(5);
  a += b;
  EXPECT_EQ(a.taskRunCount(), 7u);
  EXPECT_EQ(a.taskQuantumViolation200(), 4u);
  EXPECT_FLOAT_EQ(a.taskWorkCountDecayAvg(), 6.0f);
  EXPECT_EQ(a.taskStatus().value(), 2);
  EXPECT_EQ(a.taskRunTimeHighWaterMark(), nanoseconds(50));
  EXPECT_EQ(a.taskSchedulingLatencyHighWaterMark(), nanoseconds(100));
  EXPECT_EQ(a.taskWorkCountHighWaterMark().value(), 9u);
  EXPECT_EQ(a.taskDeadCount(), 2u);
  a += record(name, 1, TaskMaybeU32(), 1);  // an unrecorded mark never replaces a recorded one
  EXPECT_EQ(a.taskWorkCountHighWaterMark().value(), 9u);
  EXPECT_EQ(a.taskDeadCount(), 3u);

  TaskStat other = record(cache.intern("other"), 1, 0, 0);
  EXPECT_DEATH(a += other, "conn != other");
}

}  // namespace
}  // namespace Tarvo
