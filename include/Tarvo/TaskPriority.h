// Task priorities and task keys.
//
// TaskPriority is one byte: absolute (0), high, normal, low, scavenge (4); smaller is more
// urgent. oneBeyondLast (5) is the number of real priorities and bounds per-priority arrays;
// no task has it. TaskKey identifies one task instance in statistics and history.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>

namespace Tarvo {

// The priority of a task; smaller values are more urgent.
class TaskPriority {
 public:
  // The priorities, and the count of them.
  enum Value : uint8_t {
    absolute = 0,
    high = 1,
    normal = 2,
    low = 3,
    scavenge = 4,
    oneBeyondLast = 5
  };
  static constexpr unsigned count = oneBeyondLast;

  constexpr TaskPriority() = default;
  // From a priority, and from a number (which may be out of range; see valid()).
  constexpr TaskPriority(Value value) : value_(value) {}
  constexpr explicit TaskPriority(int value) : value_(static_cast<uint8_t>(value)) {}

  // The number of the priority.
  constexpr uint8_t value() const noexcept { return value_; }
  // Whether this is a priority a task may have (0 to 4).
  constexpr bool valid() const noexcept { return value_ < count; }

  // "absolute", "high", "normal", "low", "scavenge", "oneBeyondLast". Above 5 the process
  // ends with "unexpected priority value " and the stream form.
  std::string toStrep() const;
  // "A", "H", "N", "L", "S", "-". Above 5 the process ends with "unexpected priority " and
  // the stream form.
  std::string oneCharString() const;

  friend constexpr auto operator<=>(TaskPriority, TaskPriority) = default;

 private:
  uint8_t value_ = absolute;
};

// The name for 0 to 4; for anything else, 5 included, "invalidPriority=" and the number.
std::ostream& operator<<(std::ostream& os, const TaskPriority& priority);

// The identity of a task: its address as a number.
class TaskKey {
 public:
  constexpr TaskKey() = default;
  // From a number and from a task's address.
  constexpr explicit TaskKey(uintptr_t value) : value_(value) {}
  explicit TaskKey(const void* task) : value_(reinterpret_cast<uintptr_t>(task)) {}

  // The number.
  constexpr uintptr_t value() const noexcept { return value_; }
  // "@NULL" for 0, else "@0x" and lower-case hex, zero-filled to ten characters after "@".
  std::string toStrep() const;

  friend constexpr bool operator==(TaskKey, TaskKey) = default;

 private:
  uintptr_t value_ = 0;
};

}  // namespace Tarvo
