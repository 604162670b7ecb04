#include <iomanip>
#include <stdexcept>
#include <string>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "stats/StreamFormatGuard.h"

namespace Tarvo {

namespace {
constexpr unsigned kEventTypeCount = TaskSchedulerHistory::eventTypeCount;

const char* const kLabels[kEventTypeCount] = {
    "schedule   ",
    "unschedule ",
    "run start  ",
    "run end    ",
    "timerStart ",
    "timerStop  ",
    "suspendOn  ",
    "suspendOff ",
    "scheduleSus",
    "frcYieldOn ",
    "frcYieldOff",
    "idle       ",
    "busy       ",
    "create     ",
    "delete     ",
    "schedulerIdle ",
    "schedulerRunnable ",
    "schedulerSuspended ",
    "schedulerUnsuspended ",
    "schedulerRunIgnoredWhileSuspended ",
    "schedulerVirtualTimeOn ",
    "schedulerVirtualTimeOff ",
    "schedulerTestYieldRatioOn ",
    "schedulerTestYieldRatioOff ",
};

void eventNeedTask(unsigned type) {
  if (type >= kEventTypeCount) [[unlikely]] {
    fatal("unexpected eventType=" + std::to_string(type));
  }
}
}  // namespace

void TaskSchedulerHistory::Event::wrongType(unsigned type, std::source_location where) {
  eventNeedTask(type);
  fatal("EventType: " + std::to_string(type), where);
}

std::string TaskSchedulerHistory::Event::display() const {
  unsigned t = static_cast<unsigned>(eventType_);
  if (t >= kEventTypeCount) {
    fatal("unexpected eventType " + std::to_string(t));
  }
  return kLabels[t] + name_.str();
}

TaskSchedulerHistory::TaskSchedulerHistory(unsigned capacity) {
  capacityIs(capacity);
}

void TaskSchedulerHistory::capacityIs(unsigned capacity) {
  if (capacity > maxCapacity) {
    throw std::length_error("circular_buffer");
  }
  // The newest events sit at the front, so shrinking drops the oldest from the back.
  ring_.set_capacity(capacity);
}

void TaskSchedulerHistory::print(std::ostream& os, unsigned limit) const {
  StreamFormatGuard clean(os);
  unsigned n = std::min(capacity(), limit);
  std::string header = "Last " + std::to_string(n) +
                       " scheduler events, absolute timestamp and relative to last event";
  os << header << '\n' << std::string(header.size(), '-') << '\n';
  if (ring_.empty() || limit == 0) {
    os << '\n';
    return;
  }
  const TimePoint reference = ring_.front().timestamp();
  unsigned lines = 0;
  for (const Event& e : ring_) {
    os << std::setw(22) << e.timestamp().time_since_epoch().count() << " ns since boot "
       << std::setw(10)
       << std::chrono::duration_cast<std::chrono::nanoseconds>(reference - e.timestamp()).count() /
              1000
       << " \u00b5s " << e.display() << '\n';
    if (limit != noLimit && ++lines >= limit) {
      os << "Truncated due to requested limit\n";
      break;
    }
  }
  os << '\n';
}

}  // namespace Tarvo
