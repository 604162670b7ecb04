// TaskStat: a value snapshot of one task's counters, shared by the statistics report, the
// dead-task records and tests. TaskMaybeU32: a 32-bit high-water mark that may be unset.
//
// Values only; no thread rules beyond those of the ConstStringRef name they hold (the thread
// of the scheduler tree). Merging records of different names ends the process.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Tarvo/ConstStringCache.h"
#include "Tarvo/TaskPriority.h"

namespace Tarvo {

// An unsigned 32-bit value where 4294967295 means "nothing recorded". Real values saturate
// at 4294967294.
class TaskMaybeU32 {
 public:
  // The value meaning "nothing recorded", and the largest recorded value.
  static constexpr uint32_t unset = 0xffffffffu;
  static constexpr uint32_t maxRecorded = unset - 1;

  constexpr TaskMaybeU32() = default;
  // Holds `value` as it is (unset when it is `unset`).
  constexpr TaskMaybeU32(uint32_t value) : value_(value) {}

  // Whether a value is recorded; the raw value.
  constexpr bool recorded() const noexcept { return value_ != unset; }
  constexpr uint32_t value() const noexcept { return value_; }
  // The value, an unrecorded one counting as 0.
  constexpr uint32_t valueOrZero() const noexcept { return recorded() ? value_ : 0; }
  // Records `sample` (saturated) when nothing is recorded yet or it is larger.
  void raiseTo(uint64_t sample) noexcept {
    uint32_t v = sample > maxRecorded ? maxRecorded : static_cast<uint32_t>(sample);
    if (!recorded() || v > value_) {
      value_ = v;
    }
  }
  friend constexpr bool operator==(TaskMaybeU32, TaskMaybeU32) = default;

 private:
  uint32_t value_ = unset;
};

// The counters of one task, or the merged counters of the dead tasks of one name.
class TaskStat {
 public:
  // Five status flags in one byte; bit numbers are fixed.
  class TaskStatus {
   public:
    // The bit of each flag.
    static constexpr uint8_t taskTimerBit = 1;
    static constexpr uint8_t taskTimerRunningBit = 2;
    static constexpr uint8_t taskOnRunQueueBit = 4;
    static constexpr uint8_t taskCurrentlyRunningBit = 8;
    static constexpr uint8_t taskSuspendedBit = 16;

    constexpr TaskStatus() = default;
    // From the flag bits.
    constexpr explicit TaskStatus(uint8_t bits) : bits_(bits) {}

    // The flag bits.
    constexpr uint8_t value() const noexcept { return bits_; }
    // Whether any bit of `mask` is set.
    constexpr bool bitmaskHasBitSet(uint8_t mask) const noexcept { return (bits_ & mask) != 0; }
    // Sets the bits of `mask` when `on`, clears them otherwise.
    void bitmaskSetBit(uint8_t mask, bool on) noexcept {
      bits_ = on ? static_cast<uint8_t>(bits_ | mask) : static_cast<uint8_t>(bits_ & ~mask);
    }

    // Each flag and its setter: a timer task, its timer armed, on a run queue, running, suspended.
    bool taskTimer() const noexcept { return bitmaskHasBitSet(taskTimerBit); }
    void taskTimerIs(bool on) noexcept { bitmaskSetBit(taskTimerBit, on); }
    bool taskTimerRunning() const noexcept { return bitmaskHasBitSet(taskTimerRunningBit); }
    void taskTimerRunningIs(bool on) noexcept { bitmaskSetBit(taskTimerRunningBit, on); }
    bool taskOnRunQueue() const noexcept { return bitmaskHasBitSet(taskOnRunQueueBit); }
    void taskOnRunQueueIs(bool on) noexcept { bitmaskSetBit(taskOnRunQueueBit, on); }
    bool taskCurrentlyRunning() const noexcept { return bitmaskHasBitSet(taskCurrentlyRunningBit); }
    void taskCurrentlyRunningIs(bool on) noexcept { bitmaskSetBit(taskCurrentlyRunningBit, on); }
    bool taskSuspended() const noexcept { return bitmaskHasBitSet(taskSuspendedBit); }
    void taskSuspendedIs(bool on) noexcept { bitmaskSetBit(taskSuspendedBit, on); }

    friend constexpr bool operator==(TaskStatus, TaskStatus) = default;

   private:
    uint8_t bits_ = 0;
  };

  // Durations of the record.
  using nanoseconds = std::chrono::nanoseconds;

  // Every field zero: empty name, key 0, priority absolute, high-water marks 0.
  TaskStat() = default;
  TaskStat(ConstStringRef name, TaskKey key, TaskPriority priority, uint32_t runCount,
           nanoseconds totalRunTime, uint64_t workCountTotal, float workCountDecayAvg,
           TaskMaybeU32 workCountHighWaterMark, uint32_t workPending,
           TaskMaybeU32 workPendingHighWaterMark, uint32_t quantumViolation500,
           uint32_t quantumViolation200, nanoseconds runTimeHighWaterMark,
           nanoseconds lastSchedulingLatency, nanoseconds schedulingLatencyHighWaterMark,
           TaskStatus status);

  // The name as a string; "" when the record has none.
  const std::string& taskName() const noexcept { return taskName_.str(); }
  const ConstStringRef& taskNameRef() const noexcept { return taskName_; }
  TaskKey taskKey() const noexcept { return taskKey_; }
  TaskPriority taskPriority() const noexcept { return taskPriority_; }
  uint32_t taskRunCount() const noexcept { return taskRunCount_; }
  nanoseconds taskTotalRunTime() const noexcept { return taskTotalRunTime_; }
  uint64_t taskWorkCountTotal() const noexcept { return taskWorkCountTotal_; }
  float taskWorkCountDecayAvg() const noexcept { return taskWorkCountDecayAvg_; }
  TaskMaybeU32 taskWorkCountHighWaterMark() const noexcept { return taskWorkCountHighWaterMark_; }
  uint32_t taskWorkPending() const noexcept { return taskWorkPending_; }
  TaskMaybeU32 taskWorkPendingHighWaterMark() const noexcept {
    return taskWorkPendingHighWaterMark_;
  }
  uint32_t taskQuantumViolation500() const noexcept { return taskQuantumViolation500_; }
  uint32_t taskQuantumViolation200() const noexcept { return taskQuantumViolation200_; }
  nanoseconds taskRunTimeHighWaterMark() const noexcept { return taskRunTimeHighWaterMark_; }
  nanoseconds taskLastSchedulingLatency() const noexcept { return taskLastSchedulingLatency_; }
  nanoseconds taskSchedulingLatencyHighWaterMark() const noexcept {
    return taskSchedulingLatencyHighWaterMark_;
  }
  uint32_t taskDeadCount() const noexcept { return taskDeadCount_; }
  TaskStatus taskStatus() const noexcept { return taskStatus_; }

  // Additions to the counters and setters of the other fields, for merging records.
  void taskRunInc(uint32_t n) noexcept { taskRunCount_ += n; }
  void taskTotalRunTimeInc(nanoseconds d) noexcept { taskTotalRunTime_ += d; }
  void taskWorkCountTotalInc(uint64_t n) noexcept { taskWorkCountTotal_ += n; }
  void taskQuantumViolation500Inc(uint32_t n) noexcept { taskQuantumViolation500_ += n; }
  void taskQuantumViolation200Inc(uint32_t n) noexcept { taskQuantumViolation200_ += n; }
  void taskRunTimeHighWaterMarkIs(nanoseconds d) noexcept { taskRunTimeHighWaterMark_ = d; }
  void taskLastSchedulingLatencyIs(nanoseconds d) noexcept { taskLastSchedulingLatency_ = d; }
  void taskSchedulingLatencyHighWaterMarkIs(nanoseconds d) noexcept {
    taskSchedulingLatencyHighWaterMark_ = d;
  }
  void taskDeadCountInc(uint32_t n) noexcept { taskDeadCount_ += n; }
  void taskDeadCountIs(uint32_t n) noexcept { taskDeadCount_ = n; }
  void taskStatusIs(TaskStatus s) noexcept { taskStatus_ = s; }
  void taskNameIs(const ConstStringRef& name) { taskName_ = name; }

  // Two characters: '*' running, 'S' suspended, 'T'/'t' armed/idle timer, else ' '; then the
  // priority letter, upper case when on a run queue, lower case otherwise.
  std::string taskStatusString() const;

  // Merges `other` (a record of the same name) into this one: sums of counts and run time,
  // latest decaying average, pending work, last latency and status, maxima of the high-water
  // marks, and one more dead task. A different name ends the process with
  // "<this name> != <other name>".
  TaskStat& operator+=(const TaskStat& other);

 private:
  ConstStringRef taskName_;
  TaskKey taskKey_;
  TaskPriority taskPriority_;
  uint32_t taskRunCount_ = 0;
  nanoseconds taskTotalRunTime_{0};
  uint64_t taskWorkCountTotal_ = 0;
  float taskWorkCountDecayAvg_ = 0;
  TaskMaybeU32 taskWorkCountHighWaterMark_{0};
  uint32_t taskWorkPending_ = 0;
  TaskMaybeU32 taskWorkPendingHighWaterMark_{0};
  uint32_t taskQuantumViolation500_ = 0;
  uint32_t taskQuantumViolation200_ = 0;
  nanoseconds taskRunTimeHighWaterMark_{0};
  nanoseconds taskLastSchedulingLatency_{0};
  nanoseconds taskSchedulingLatencyHighWaterMark_{0};
  uint32_t taskDeadCount_ = 0;
  TaskStatus taskStatus_;
};

}  // namespace Tarvo
