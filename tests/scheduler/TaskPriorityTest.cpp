#include <gtest/gtest.h>

#include <sstream>

#include "Tarvo/TaskStat.h"

namespace Tarvo {
namespace {

std::string streamed(TaskPriority p) {
  std::ostringstream os;
  os << p;
  return os.str();
}

TEST(TaskPriorityTest, NamesLettersAndStreamFormAgreeOnRealPriorities) {
  const char* names[] = {"absolute", "high", "normal", "low", "scavenge"};
  const char* letters[] = {"A", "H", "N", "L", "S"};
  for (int p = 0; p < 5; ++p) {
    EXPECT_EQ(TaskPriority(p).toStrep(), names[p]);
    EXPECT_EQ(TaskPriority(p).oneCharString(), letters[p]);
    EXPECT_EQ(streamed(TaskPriority(p)), names[p]);
  }
  EXPECT_LT(TaskPriority(TaskPriority::absolute), TaskPriority(TaskPriority::scavenge));
}

TEST(TaskPriorityTest, OneBeyondLastIsNamedButStreamsAsInvalid) {
  TaskPriority p(TaskPriority::oneBeyondLast);
  EXPECT_EQ(p.toStrep(), "oneBeyondLast");
  EXPECT_EQ(p.oneCharString(), "-");
  EXPECT_EQ(streamed(p), "invalidPriority=5");
  EXPECT_EQ(streamed(TaskPriority(7)), "invalidPriority=7");
}

TEST(TaskPriorityDeathTest, ValuesAboveFiveAbortWithTheStreamForm) {
  EXPECT_DEATH(TaskPriority(7).toStrep(), "toStrep.*unexpected priority value invalidPriority=7");
  EXPECT_DEATH(TaskPriority(200).oneCharString(),
               "oneCharString.*unexpected priority invalidPriority=200");
}

TEST(TaskKeyTest, PrintsAsZeroFilledPointer) {
  EXPECT_EQ(TaskKey().toStrep(), "@NULL");
  EXPECT_EQ(TaskKey(uintptr_t{0xabc}).toStrep(), "@0x00000abc");
  EXPECT_EQ(TaskKey(uintptr_t{0x7f12345678ab}).toStrep(), "@0x7f12345678ab");
}

TEST(TaskStatusTest, EachFlagOwnsItsBit) {
  TaskStat::TaskStatus s;
  s.taskSuspendedIs(true);
  EXPECT_EQ(s.value(), 16);
  s.taskTimerIs(false);
  EXPECT_EQ(s.value(), 16);
  s.taskTimerIs(true);
  s.taskTimerRunningIs(true);
  s.taskOnRunQueueIs(true);
  s.taskCurrentlyRunningIs(true);
  EXPECT_EQ(s.value(), 31);
  s.taskOnRunQueueIs(false);
  EXPECT_EQ(s.value(), 27);
  EXPECT_TRUE(s.bitmaskHasBitSet(4 | 8));
  EXPECT_FALSE(s.bitmaskHasBitSet(4));
  s.bitmaskSetBit(1 | 2 | 8, false);
  EXPECT_EQ(s.value(), 16);
  EXPECT_TRUE(s.taskSuspended());
  EXPECT_FALSE(s.taskTimer());
}

}  // namespace
}  // namespace Tarvo
