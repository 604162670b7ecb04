#include <gtest/gtest.h>

#include "Tarvo/TaskPriority.h"

namespace Tarvo {
namespace {

using ::testing::PrintToString;

TEST(TaskPriorityTest, NamesStreamFormsAndAbortsOutOfRange) {
  EXPECT_EQ(PrintToString(TaskPriority(TaskPriority::scavenge)), "scavenge");
  TaskPriority p(TaskPriority::oneBeyondLast);
  EXPECT_EQ(p.toStrep(), "oneBeyondLast");
  EXPECT_EQ(p.oneCharString(), "-");
  EXPECT_EQ(PrintToString(p), "invalidPriority=5");
  EXPECT_DEATH(TaskPriority(7).toStrep(), "toStrep.*unexpected priority value invalidPriority=7");
  EXPECT_DEATH(TaskPriority(200).oneCharString(),
               "oneCharString.*unexpected priority invalidPriority=200");
}

TEST(TaskKeyTest, PrintsAsZeroFilledPointer) {
  EXPECT_EQ(TaskKey().toStrep(), "@NULL");
  EXPECT_EQ(TaskKey(uintptr_t{0xabc}).toStrep(), "@0x00000abc");
  EXPECT_EQ(TaskKey(uintptr_t{0x7f12345678ab}).toStrep(), "@0x7f12345678ab");
}

}  // namespace
}  // namespace Tarvo
