#include <iomanip>
#include <stdexcept>
#include <string>

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

namespace {
constexpr unsigned kFirstSchedulerEvent = 15;
constexpr unsigned kEventTypeCount = 24;

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

TaskSchedulerHistory::Event::Event(const TimePoint& when, TaskSchedulerEventType type,
                                   ConstStringRef name, bool taskEvent)
    : eventType_(type), timestamp_(when), name_(std::move(name)) {
  unsigned t = static_cast<unsigned>(type);
  eventNeedTask(t);
  if ((t < kFirstSchedulerEvent) != taskEvent) [[unlikely]] {
    fatal("EventType: " + std::to_string(t));
  }
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

void TaskSchedulerHistory::insert(const TimePoint& when, TaskSchedulerEventType type,
                                  const _TaskBase* task) {
  insertEvent(when, type, task->taskStatsName(), true);
}

void TaskSchedulerHistory::insert(const TimePoint& when, TaskSchedulerEventType type,
                                  const TaskScheduler* scheduler) {
  insertEvent(when, type, scheduler->schedulerName(), false);
}

void TaskSchedulerHistory::capacityIs(unsigned capacity) {
  if (capacity > maxCapacity) {
    throw std::length_error("circular_buffer");
  }
  // The newest events sit at the front, so shrinking drops the oldest from the back.
  ring_.set_capacity(capacity);
}

void TaskSchedulerHistory::print(std::ostream& os, unsigned limit) const {
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
