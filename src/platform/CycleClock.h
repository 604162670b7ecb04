// A clock read from the CPU's cycle counter and kept in step with a reference clock (the
// kernel's monotonic clock), so that a time stamp costs one counter read instead of a clock
// call. The scheduler stamps every schedule, run start and run end with it.
//
// Until the counter's rate is known, that is for the first kCalibrationNs of reference time
// after the first read, every read returns the reference clock itself. From then on a read
// scales the counter by published parameters, which are good for kResyncNs; the first read
// past that samples the reference again and publishes a new set that
//  - starts at the reference, or where the old set ends if that is later (a clock ahead of
//    the reference is slowed, never set back), so readings never go back;
//  - runs at the reference's rate measured between the last two samples (a rate far from the
//    current one is taken only when two intervals in a row agree on it: one such interval is a
//    sleep or a counter reset), slowed as needed to lose any lead by the next resync.
// So the readings stay within the drift of one resync interval of the reference (well under a
// microsecond on a steadily running machine), also after long idle stretches and sleeps.
//
// Reads take no lock and allocate nothing; everything but the counter read and the scaling is
// kept out of line. The parameters live in two slots: one thread at a
// time (a try-lock; the others meanwhile read the end of the current set) writes the inactive
// slot, then makes it the active one; a per-slot sequence number tells a reader that raced with
// a rewrite to read again.
//
// `Source` supplies three static functions: `uint64_t cycles()`, `int64_t referenceNs()` and
// `bool cyclesUsable()`, the last asked once, at the first read: false makes every read the
// reference clock.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tarvo {

template <class Source>
class CycleClock {
 public:
  static constexpr int64_t kCalibrationNs = 10'000'000;
  static constexpr int64_t kResyncNs = 50'000'000;

  constexpr CycleClock() noexcept = default;
  CycleClock(const CycleClock&) = delete;
  CycleClock& operator=(const CycleClock&) = delete;

  // Nanoseconds on the reference clock's scale.
  int64_t nowNs() noexcept {
    Params p;
    if (readActive(&p)) [[likely]] {
      uint64_t delta = Source::cycles() - p.baseCycles;
      if (delta < p.spanCycles) [[likely]] {
        return scale(p, delta);
      }
    }
    return nowSlow();
  }

  // Frees the resync try-lock, which a thread that does not exist in a forked child may hold.
  void forkChild() noexcept { updating_.store(false, std::memory_order_relaxed); }

 private:
  static constexpr uint8_t kNone = 2;

  struct Params {
    uint64_t baseCycles;
    int64_t baseNs;
    uint64_t mult;  // nanoseconds per cycle, times 2^32
    uint64_t spanCycles;
  };
  struct Slot {
    std::atomic<uint64_t> sequence{0};
    std::atomic<uint64_t> baseCycles{0};
    std::atomic<int64_t> baseNs{0};
    std::atomic<uint64_t> mult{0};
    std::atomic<uint64_t> spanCycles{0};
  };
  struct Sample {
    uint64_t cycles;
    int64_t ns;
  };

  // The active parameters, unless there are none yet or a rewrite raced with the read.
  bool readActive(Params* p) const noexcept {
    uint8_t active = active_.load(std::memory_order_acquire);
    if (active == kNone) {
      return false;
    }
    const Slot& slot = slots_[active];
    uint64_t sequence = slot.sequence.load(std::memory_order_acquire);
    *p = {slot.baseCycles.load(std::memory_order_acquire),
          slot.baseNs.load(std::memory_order_acquire), slot.mult.load(std::memory_order_acquire),
          slot.spanCycles.load(std::memory_order_acquire)};
    return (sequence & 1) == 0 && slot.sequence.load(std::memory_order_relaxed) == sequence;
  }

  [[gnu::noinline, gnu::cold]] int64_t nowSlow() noexcept {
    for (;;) {
      Params p;
      if (!readActive(&p)) {
        int64_t ns;
        if (active_.load(std::memory_order_acquire) == kNone && calibrating(&ns)) {
          return ns;
        }
        continue;
      }
      uint64_t cycles = Source::cycles();
      uint64_t delta = cycles - p.baseCycles;
      if (delta < p.spanCycles) {
        return scale(p, delta);
      }
      // The counter is not serialised, so a read can land a few cycles before a base that
      // another thread has just published: that is the base itself. Further back, the
      // counter itself went back.
      if (p.baseCycles - cycles < p.spanCycles) {
        return p.baseNs;
      }
      // No reader of these parameters has answered more than their value at the span's end.
      return resync(scale(p, p.spanCycles));
    }
  }

  static int64_t scale(const Params& p, uint64_t delta) noexcept {
    return p.baseNs + static_cast<int64_t>(static_cast<unsigned __int128>(delta) * p.mult >> 32);
  }

  // Nanoseconds per cycle between two samples, times 2^32; zero if the counter did not advance.
  static uint64_t rate(const Sample& from, const Sample& to) noexcept {
    if (to.cycles <= from.cycles || to.ns <= from.ns) {
      return 0;
    }
    auto ns = static_cast<unsigned __int128>(to.ns - from.ns) << 32;
    uint64_t mult = static_cast<uint64_t>(ns / (to.cycles - from.cycles));
    return mult ? mult : 1;
  }

  // Within 0.1%: time adjustments slew the reference by at most 0.05%.
  static bool near(uint64_t a, uint64_t b) noexcept { return (a > b ? a - b : b - a) <= b / 1000; }

  static uint64_t cyclesIn(int64_t ns, uint64_t mult) noexcept {
    return static_cast<uint64_t>((static_cast<unsigned __int128>(ns) << 32) / mult);
  }

  // A reference reading paired with the counter read just before it, so the pair never puts
  // the reference earlier than it was at that count; the tightest of three brackets.
  static Sample sample() noexcept {
    Sample best{Source::cycles(), Source::referenceNs()};
    uint64_t bestSpan = UINT64_MAX;
    for (int i = 0; i < 3; ++i) {
      uint64_t before = Source::cycles();
      int64_t ns = Source::referenceNs();
      uint64_t after = Source::cycles();
      if (after >= before && after - before < bestSpan) {
        bestSpan = after - before;
        best = {before, ns};
      }
    }
    return best;
  }

  // Before the first parameters exist: answers the reference clock in *ns and returns true, or
  // returns false if the parameters appeared meanwhile.
  bool calibrating(int64_t* ns) noexcept {
    if (referenceOnly_.load(std::memory_order_relaxed) || !tryLock()) {
      *ns = Source::referenceNs();
      return true;
    }
    if (active_.load(std::memory_order_relaxed) != kNone) {
      unlock();
      return false;
    }
    Sample now = sample();
    if (!started_) {
      started_ = true;
      first_ = now;
      if (!Source::cyclesUsable()) {
        referenceOnly_.store(true, std::memory_order_relaxed);
      }
    } else if (now.ns - first_.ns >= kCalibrationNs) {
      if (uint64_t mult = rate(first_, now)) {
        publish({now.cycles, now.ns, mult, cyclesIn(kResyncNs, mult)});
        rate_ = lastMeasured_ = mult;
        last_ = now;
      }
    }
    unlock();
    *ns = now.ns;
    return true;
  }

  // `end`: the value of the current parameters at the end of their span.
  int64_t resync(int64_t end) noexcept {
    if (!tryLock()) {
      return end;
    }
    Sample now = sample();
    // A rate far from the current one means a jump (the machine slept, the counter was reset),
    // not a change of rate, unless the previous interval measured it too.
    if (uint64_t measured = rate(last_, now)) {
      if (near(measured, rate_) || near(measured, lastMeasured_)) {
        rate_ = measured;
      }
      lastMeasured_ = measured;
    }
    uint64_t mult = rate_;
    Params next{now.cycles, now.ns, mult, cyclesIn(kResyncNs, mult)};
    if (now.ns < end) {
      // Ahead of the reference: start where the old set ends and run slow enough to meet
      // the reference at the next resync (at most half speed).
      int64_t lead = end - now.ns;
      if (lead > kResyncNs / 2) {
        lead = kResyncNs / 2;
      }
      next.baseNs = end;
      next.mult = static_cast<uint64_t>(static_cast<unsigned __int128>(mult) *
                                        static_cast<uint64_t>(kResyncNs - lead) / kResyncNs);
    }
    publish(next);
    last_ = now;
    unlock();
    return next.baseNs;
  }

  void publish(const Params& p) noexcept {
    uint8_t next = active_.load(std::memory_order_relaxed) == 0 ? 1 : 0;
    Slot& slot = slots_[next];
    // Odd while the slot is rewritten; the acquire half keeps the stores below after it.
    slot.sequence.fetch_add(1, std::memory_order_acq_rel);
    slot.baseCycles.store(p.baseCycles, std::memory_order_release);
    slot.baseNs.store(p.baseNs, std::memory_order_release);
    slot.mult.store(p.mult, std::memory_order_release);
    slot.spanCycles.store(p.spanCycles, std::memory_order_release);
    slot.sequence.fetch_add(1, std::memory_order_release);
    active_.store(next, std::memory_order_release);
  }

  bool tryLock() noexcept { return !updating_.exchange(true, std::memory_order_acquire); }
  void unlock() noexcept { updating_.store(false, std::memory_order_release); }

  std::atomic<uint8_t> active_{kNone};
  std::atomic<bool> updating_{false};
  std::atomic<bool> referenceOnly_{false};
  Slot slots_[2];
  // Written only under the try-lock.
  bool started_ = false;
  Sample first_{0, 0};
  Sample last_{0, 0};
  uint64_t rate_ = 0;          // the reference's rate, as a mult
  uint64_t lastMeasured_ = 0;  // the rate the last resync measured
};

}  // namespace Tarvo
