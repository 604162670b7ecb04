#include <gtest/gtest.h>

#include "Tarvo/ConstStringCache.h"
#include "Tarvo/TaskStat.h"

namespace Tarvo {
namespace {

using std::chrono::nanoseconds;

TaskStat record(ConstStringRef name, uint32_t runs, TaskMaybeU32 workHigh, int64_t runHigh,
                uint8_t status = 0) {
  return TaskStat(std::move(name), TaskKey(uintptr_t{0x10}), TaskPriority::high, runs,
                  nanoseconds(100 * runs), 7 * runs, 1.5f * runs, workHigh, runs + 1, workHigh, 1,
                  2, nanoseconds(runHigh), nanoseconds(runs), nanoseconds(runHigh * 2),
                  TaskStat::TaskStatus(status));
}

TEST(TaskStatTest, DefaultRecordIsEmptyAndReadsAsIdleAbsolute) {
  TaskStat s;
  EXPECT_EQ(s.taskName(), "");
  EXPECT_EQ(s.taskStatusString(), " a");
  EXPECT_EQ(s.taskWorkCountHighWaterMark().value(), 0u);
  EXPECT_EQ(s.taskDeadCount(), 0u);
}

TEST(TaskStatTest, StatusStringRanksRunningSuspendedAndTimerStates) {
  auto str = [](uint8_t bits, TaskPriority p) {
    TaskStat s(ConstStringRef(), TaskKey(), p, 0, nanoseconds(0), 0, 0, 0, 0, 0, 0, 0,
               nanoseconds(0), nanoseconds(0), nanoseconds(0), TaskStat::TaskStatus(bits));
    return s.taskStatusString();
  };
  using S = TaskStat::TaskStatus;
  EXPECT_EQ(
      str(S::taskTimerBit | S::taskTimerRunningBit | S::taskOnRunQueueBit, TaskPriority::high),
      "TH");
  EXPECT_EQ(str(S::taskTimerBit | S::taskOnRunQueueBit, TaskPriority::high), "tH");
  EXPECT_EQ(str(S::taskTimerBit | S::taskTimerRunningBit, TaskPriority::high), "Th");
  EXPECT_EQ(str(S::taskTimerBit, TaskPriority::normal), "tn");
  EXPECT_EQ(
      str(S::taskCurrentlyRunningBit | S::taskSuspendedBit | S::taskTimerBit, TaskPriority::normal),
      "*n");
  EXPECT_EQ(
      str(S::taskSuspendedBit | S::taskTimerBit | S::taskOnRunQueueBit, TaskPriority::scavenge),
      "SS");
  EXPECT_EQ(str(S::taskOnRunQueueBit, TaskPriority::low), " L");
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
  EXPECT_EQ(a.taskTotalRunTime(), nanoseconds(700));
  EXPECT_EQ(a.taskWorkCountTotal(), 49u);
  EXPECT_EQ(a.taskQuantumViolation500(), 2u);
  EXPECT_EQ(a.taskQuantumViolation200(), 4u);
  EXPECT_FLOAT_EQ(a.taskWorkCountDecayAvg(), 6.0f);
  EXPECT_EQ(a.taskWorkPending(), 5u);
  EXPECT_EQ(a.taskLastSchedulingLatency(), nanoseconds(4));
  EXPECT_EQ(a.taskStatus().value(), 2);
  EXPECT_EQ(a.taskRunTimeHighWaterMark(), nanoseconds(50));
  EXPECT_EQ(a.taskSchedulingLatencyHighWaterMark(), nanoseconds(100));
  EXPECT_EQ(a.taskWorkCountHighWaterMark().value(), 9u);
  EXPECT_EQ(a.taskDeadCount(), 2u);

  // An unrecorded mark never replaces a recorded one.
  a += record(name, 1, TaskMaybeU32(), 1);
  EXPECT_EQ(a.taskWorkCountHighWaterMark().value(), 9u);
  EXPECT_EQ(a.taskDeadCount(), 3u);
}

TEST(TaskStatDeathTest, MergingDifferentNamesAborts) {
  ConstStringCache cache;
  TaskStat b = record(cache.intern("b"), 1, 0, 0);
  TaskStat a = record(cache.intern("a"), 1, 0, 0);
  EXPECT_DEATH(b += a, "b != a");
}

TEST(TaskMaybeU32Test, RaiseSaturatesBelowTheUnsetValue) {
  TaskMaybeU32 m;
  EXPECT_FALSE(m.recorded());
  EXPECT_EQ(m.valueOrZero(), 0u);
  m.raiseTo(0);
  EXPECT_TRUE(m.recorded());
  m.raiseTo(1ull << 40);
  EXPECT_EQ(m.value(), 4294967294u);
}

}  // namespace
}  // namespace Tarvo
