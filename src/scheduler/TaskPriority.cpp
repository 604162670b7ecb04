#include "Tarvo/TaskPriority.h"

#include <cstdio>

#include "Tarvo/Exception.h"
#include "scheduler/SchedulerText.h"

namespace Tarvo {

namespace {
const char* const kNames[] = {"absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"};
const char* const kLetters[] = {"A", "H", "N", "L", "S", "-"};
}  // namespace

std::string TaskPriority::toStrep() const {
  if (value_ > oneBeyondLast) {
    fatal(concat("unexpected priority value ", *this));
  }
  return kNames[value_];
}

std::string TaskPriority::oneCharString() const {
  if (value_ > oneBeyondLast) {
    fatal(concat("unexpected priority ", *this));
  }
  return kLetters[value_];
}

std::ostream& operator<<(std::ostream& os, const TaskPriority& priority) {
  if (priority.valid()) {
    return os << kNames[priority.value()];
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "invalidPriority=%d", priority.value());
  return os << buf;
}

std::string TaskKey::toStrep() const {
  if (value_ == 0) {
    return "@NULL";
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "@0x%08lx", static_cast<unsigned long>(value_));
  return buf;
}

}  // namespace Tarvo
