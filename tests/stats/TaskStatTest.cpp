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
  auto str = [](uint8_t bits, TaskPriority p) {
    return record(ConstStringRef(), 0, 0, 0, bits, p).taskStatusString();
  };
  uint8_t timer = S::taskTimerBit, armed = S::taskTimerRunningBit, queued = S::taskOnRunQueueBit;
  EXPECT_EQ(str(timer | armed | queued, TaskPriority::high), "TH");
  EXPECT_EQ(str(timer | armed, TaskPriority::high), "Th");
  EXPECT_EQ(str(timer | queued, TaskPriority::high), "tH");
  EXPECT_EQ(str(S::taskCurrentlyRunningBit | S::taskSuspendedBit | timer, TaskPriority::normal),
            "*n");
  EXPECT_EQ(str(S::taskSuspendedBit | timer | queued, TaskPriority::scavenge), "SS");
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

}  // namespace
}  // namespace Tarvo
