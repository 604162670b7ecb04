// The scheduling history: a fixed-size ring of recent scheduling events, newest first, kept
// by the root of a scheduler tree and shared by all its schedulers. It also owns the tree's
// name cache, so it outlives every name reference of the tree.
//
// Inserting is a few stores and one reference-count change; the ring is allocated once. Only
// the thread of the tree inserts and prints; nothing locks. An event type that does not fit
// the inserting variant ends the process.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <source_location>
#include <string>

#include <boost/circular_buffer.hpp>

#include "Tarvo/ConstStringCache.h"

namespace Tarvo {

class _TaskBase;
class TaskScheduler;

// Values 0 to 14 are task events, 15 to 23 scheduler events.
enum class TaskSchedulerEventType : uint8_t {
  schedule = 0,
  unschedule = 1,
  runStart = 2,
  runEnd = 3,
  timerStart = 4,
  timerStop = 5,
  suspendOn = 6,
  suspendOff = 7,
  scheduleSus = 8,
  frcYieldOn = 9,
  frcYieldOff = 10,
  idle = 11,
  busy = 12,
  create = 13,
  destroy = 14,
  schedulerIdle = 15,
  schedulerRunnable = 16,
  schedulerSuspended = 17,
  schedulerUnsuspended = 18,
  schedulerRunIgnoredWhileSuspended = 19,
  schedulerVirtualTimeOn = 20,
  schedulerVirtualTimeOff = 21,
  schedulerTestYieldRatioOn = 22,
  schedulerTestYieldRatioOff = 23,
};

// The history ring and the tree's name cache; see the top of this file.
class TaskSchedulerHistory {
 public:
  // The clock of the time stamps.
  using TimePoint = std::chrono::steady_clock::time_point;
  // The largest capacity the ring accepts.
  static constexpr unsigned maxCapacity = 268435455;
  static constexpr unsigned defaultCapacity = 100;
  // A printHistory limit meaning "everything".
  static constexpr unsigned noLimit = 4294967295u;
  static constexpr unsigned firstSchedulerEvent = 15;
  static constexpr unsigned eventTypeCount = 24;

  // One recorded event: its type, its time stamp and the task's or scheduler's name.
  class Event {
   public:
    // Ends the process when `type` is not a task event (`taskEvent`) or not a scheduler event.
    Event(const TimePoint& when, TaskSchedulerEventType type, ConstStringRef name, bool taskEvent)
        : eventType_(type), timestamp_(when), name_(std::move(name)) {
      unsigned t = static_cast<unsigned>(type);
      if (t >= eventTypeCount || (t < firstSchedulerEvent) != taskEvent) [[unlikely]] {
        wrongType(t, std::source_location::current());
      }
    }

    // The fields.
    TaskSchedulerEventType eventType() const noexcept { return eventType_; }
    const TimePoint& timestamp() const noexcept { return timestamp_; }
    const ConstStringRef& name() const noexcept { return name_; }
    // The fixed-width label of the type followed by the name.
    std::string display() const;

   private:
    [[noreturn]] static void wrongType(unsigned type, std::source_location where);

    TaskSchedulerEventType eventType_;
    TimePoint timestamp_;
    ConstStringRef name_;
  };

  // A capacity above maxCapacity throws std::length_error("circular_buffer").
  explicit TaskSchedulerHistory(unsigned capacity);

  // A task event (types 0 to 14), named by the task's statistics name. Defined in
  // Tarvo/TaskScheduler.h, the header to include for inserting.
  inline void insert(const TimePoint& when, TaskSchedulerEventType type, const _TaskBase* task);
  // A scheduler event (types 15 to 23), named by the scheduler's name. As above.
  inline void insert(const TimePoint& when, TaskSchedulerEventType type,
                     const TaskScheduler* scheduler);

  // The tree's name cache.
  ConstStringCache& nameCache() noexcept { return nameCache_; }
  // The most events the ring holds.
  unsigned capacity() const noexcept { return static_cast<unsigned>(ring_.capacity()); }
  // Shrinking drops the oldest events.
  void capacityIs(unsigned capacity);
  unsigned size() const noexcept { return static_cast<unsigned>(ring_.size()); }
  // The i-th event, 0 being the newest.
  const Event& event(unsigned i) const { return ring_[i]; }
  void clear() { ring_.clear(); }

  // The layout printed by TaskSchedulerRoot::printHistory.
  void print(std::ostream& os, unsigned limit) const;

 private:
  friend class _TaskBase;

  void insertEvent(const TimePoint& when, TaskSchedulerEventType type, const ConstStringRef& name,
                   bool taskEvent) {
    Event event(when, type, name, taskEvent);
    if (ring_.capacity() != 0) {
      ring_.push_front(std::move(event));
    }
  }

  ConstStringCache nameCache_;
  boost::circular_buffer<Event> ring_;
};

}  // namespace Tarvo
