// A clock read from the CPU's cycle counter and kept in step with a reference clock (the
// kernel's monotonic clock), so that a time stamp costs one counter read instead of a clock
// call. The scheduler stamps every schedule, run start and run end with it.
//
// Calibration. Until the counter's rate is known every read returns the reference clock. The
// rate is measured over two consecutive half-windows of kCalibrationNs / 2 that must agree
// (within 0.1%) on a plausible rate (a counter of 0.2 to 10 GHz); otherwise the window slides
// on and the measurement starts over.
//
// Running. A read scales the counter by published parameters, which are good for kResyncNs;
// the first read past that span samples the reference again and publishes a new set that
//  - starts at the reference, or where the old set ends if that is later (a clock ahead of the
//    reference is slowed, never set back);
//  - runs at the reference's rate measured between the last two samples (a rate far from the
//    current one is taken only when two intervals in a row agree on it: one such interval is a
//    sleep or a counter reset), slowed as needed to lose any lead by the next resync.
// So the readings stay within the drift of one resync interval of the reference (well under a
// microsecond on a steadily running machine), also after long idle stretches and sleeps. Every
// kRecheckResyncs resyncs the resyncing thread asks `cyclesUsable()` again; once it says no,
// every read is the reference clock, held at least at the last value handed out.
//
// Ordering. Within a thread readings never go back. The counter read is not serialised (a
// serialised read costs as much as a clock call), so it may execute a little before the code
// around it: across threads, a reading taken after learning of another thread's reading can be
// smaller than it by up to a few hundred nanoseconds. A reading is also up to a few tens of
// nanoseconds ahead of the reference, because each sample pairs the reference with the counter
// read just before it.
//
// Concurrency. Reads take no lock and allocate nothing; everything but the slot loads, the
// counter read and the scaling is kept out of line. The parameters live in two slots: one
// thread at a time (a try-lock) writes the inactive slot, then makes it the active one, and a
// per-slot sequence number tells a reader that raced with a rewrite to read again. A resync
// first checks that nobody published since it read the parameters it is replacing. While one
// thread publishes, readers past the span answer the value at its end: time stands still for
// them until the new set is out (a few dozen nanoseconds, unless the publishing thread loses
// its processor in between). A read that interrupts its own thread inside the try-lock (from
// a signal handler) never waits and never takes the lock: it answers the same way (the span's
// end, or the reference clock while calibrating), so it is safe in a signal handler.
//
// `Source` supplies five static functions: `uint64_t cycles()`, `int64_t referenceNs()`,
// `bool cyclesUsable()` (false makes every read the reference clock), and for the try-lock
// `int32_t threadId()` and `bool threadAlive(int32_t id)` (whether a thread of this process has
// that id), asked on the slow paths only.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tarvo {

template <class Source>
class CycleClock {
 public:
  static constexpr int64_t kCalibrationNs = 10'000'000;
  static constexpr int64_t kResyncNs = 50'000'000;
  static constexpr unsigned kRecheckResyncs = 100;

  constexpr CycleClock() noexcept = default;
  CycleClock(const CycleClock&) = delete;
  CycleClock& operator=(const CycleClock&) = delete;

  // Nanoseconds on the reference clock's scale.
  int64_t nowNs() noexcept {
    Params p;
    Seen seen;
    if (readActive(&p, &seen)) [[likely]] {
      uint64_t delta = Source::cycles() - p.baseCycles;
      if (delta < p.spanCycles) [[likely]] {
        return scale(p, delta);
      }
    } else if (referenceOnly_.load(std::memory_order_acquire)) {
      return referenceHeld();
    }
    return nowSlow();
  }

 private:
  static constexpr uint8_t kNone = 2;
  // Nanoseconds per cycle times 2^32, for counters of 10 GHz and of 0.2 GHz.
  static constexpr unsigned __int128 kMinMult = (static_cast<unsigned __int128>(1) << 32) / 10;
  static constexpr unsigned __int128 kMaxMult = static_cast<unsigned __int128>(5) << 32;

  struct Params {
    uint64_t baseCycles;
    int64_t baseNs;
    uint64_t mult;  // nanoseconds per cycle, times 2^32
    uint64_t spanCycles;
  };
  // Which publication a reader used.
  struct Seen {
    uint8_t slot;
    uint64_t sequence;
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

  // The active parameters, unless there are none or a rewrite raced with the read.
  bool readActive(Params* p, Seen* seen) const noexcept {
    uint8_t active = active_.load(std::memory_order_acquire);
    if (active == kNone) {
      return false;
    }
    const Slot& slot = slots_[active];
    uint64_t sequence = slot.sequence.load(std::memory_order_acquire);
    *p = {slot.baseCycles.load(std::memory_order_acquire),
          slot.baseNs.load(std::memory_order_acquire), slot.mult.load(std::memory_order_acquire),
          slot.spanCycles.load(std::memory_order_acquire)};
    *seen = {active, sequence};
    // Still the active slot: a reader that stalled after loading `active_` could otherwise
    // find a newer set that is written but not yet published, and then an older one.
    return (sequence & 1) == 0 && slot.sequence.load(std::memory_order_relaxed) == sequence &&
           active_.load(std::memory_order_relaxed) == active;
  }

  [[gnu::noinline, gnu::cold]] int64_t nowSlow() noexcept {
    for (;;) {
      Params p;
      Seen seen;
      int64_t ns;
      if (!readActive(&p, &seen)) {
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
      // A read can land a few cycles before a base that another thread has just published:
      // that is the base itself. Further back, the counter itself went back.
      if (p.baseCycles - cycles < p.spanCycles) {
        return p.baseNs;
      }
      // No reader of these parameters has answered more than their value at the span's end.
      if (resync(seen, scale(p, p.spanCycles), &ns)) {
        return ns;
      }
    }
  }

  static int64_t scale(const Params& p, uint64_t delta) noexcept {
    return p.baseNs + static_cast<int64_t>(static_cast<unsigned __int128>(delta) * p.mult >> 32);
  }

  // Nanoseconds per cycle between two samples, times 2^32; zero unless both moved forward at a
  // plausible rate.
  static uint64_t rate(const Sample& from, const Sample& to) noexcept {
    if (to.cycles <= from.cycles || to.ns <= from.ns) {
      return 0;
    }
    unsigned __int128 mult =
        (static_cast<unsigned __int128>(to.ns - from.ns) << 32) / (to.cycles - from.cycles);
    return mult < kMinMult || mult > kMaxMult ? 0 : static_cast<uint64_t>(mult);
  }

  // Within 0.1%: time adjustments slew the reference by at most 0.05%.
  static bool near(uint64_t a, uint64_t b) noexcept { return (a > b ? a - b : b - a) <= b / 1000; }

  static uint64_t cyclesIn(int64_t ns, uint64_t mult) noexcept {
    return static_cast<uint64_t>((static_cast<unsigned __int128>(ns) << 32) / mult);
  }

  // A reference reading paired with the counter read just before it, so that the pair never
  // puts the reference earlier than it was at that count. The tightest of kSampleTries
  // brackets: a bracket that an interrupt or a hypervisor exit widened would misplace the
  // pair by that much, and the rate measured from it.
  static constexpr int kSampleTries = 5;
  static Sample sample() noexcept {
    Sample best{0, 0};
    uint64_t bestSpan = UINT64_MAX;
    for (int i = 0; i < kSampleTries; ++i) {
      uint64_t before = Source::cycles();
      int64_t ns = Source::referenceNs();
      uint64_t span = Source::cycles() - before;
      if (i == 0 || span < bestSpan) {
        bestSpan = span;
        best = {before, ns};
      }
    }
    return best;
  }

  // Once the counter is found unusable: the reference clock, held at least at the last value
  // the counter handed out. Kept inline, so that such hosts pay little more than the
  // reference clock itself.
  int64_t referenceHeld() const noexcept {
    int64_t floor = floorNs_.load(std::memory_order_relaxed);
    int64_t reference = Source::referenceNs();
    return reference > floor ? reference : floor;
  }

  // Without parameters: answers the reference clock in *ns and returns true, or returns false
  // if parameters appeared meanwhile.
  bool calibrating(int64_t* ns) noexcept {
    if (referenceOnly_.load(std::memory_order_acquire)) {
      *ns = referenceHeld();
      return true;
    }
    if (!tryLock()) {
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
        referenceOnly_.store(true, std::memory_order_release);
      }
    } else if (!haveMid_) {
      if (now.ns - first_.ns >= kCalibrationNs / 2) {
        mid_ = now;
        haveMid_ = true;
      }
    } else if (now.ns - mid_.ns >= kCalibrationNs / 2) {
      uint64_t early = rate(first_, mid_);
      uint64_t late = rate(mid_, now);
      if (early != 0 && late != 0 && near(late, early)) {
        // Publishing comes last, so that a forked child taking the lock over never finds
        // parameters out without the state behind them.
        uint64_t mult = rate(first_, now);
        rate_ = lastMeasured_ = mult;
        last_ = now;
        publish({now.cycles, now.ns, mult, cyclesIn(kResyncNs, mult)});
      } else {
        first_ = mid_;
        mid_ = now;
      }
    }
    unlock();
    *ns = now.ns;
    return true;
  }

  // `seen`: the parameters the caller found past their span; `end`: their value at its end.
  // Returns false if another thread published since, so the caller reads again.
  bool resync(const Seen& seen, int64_t end, int64_t* ns) noexcept {
    if (lockedByAnother(owner_.load(std::memory_order_relaxed))) {
      *ns = end;
      return true;
    }
    // The sample and the usability check come before the lock, which is then held only for
    // the publication: the shorter it is held, the rarer a holder that loses its processor
    // meanwhile and leaves the others standing still.
    Sample now = sample();
    unsigned resyncs = resyncs_.load(std::memory_order_relaxed);
    bool usable = (resyncs + 1) % kRecheckResyncs != 0 || Source::cyclesUsable();
    if (!tryLock()) {
      *ns = end;
      return true;
    }
    if (active_.load(std::memory_order_relaxed) != seen.slot ||
        slots_[seen.slot].sequence.load(std::memory_order_relaxed) != seen.sequence) {
      unlock();
      return false;
    }
    resyncs_.store(resyncs + 1, std::memory_order_relaxed);
    int64_t base = now.ns > end ? now.ns : end;
    if (!usable) {
      floorNs_.store(base, std::memory_order_relaxed);
      referenceOnly_.store(true, std::memory_order_release);
      active_.store(kNone, std::memory_order_release);
      unlock();
      *ns = base;
      return true;
    }
    // A rate far from the current one means a jump (the machine slept, the counter was reset),
    // not a change of rate, unless the previous interval measured it too.
    if (uint64_t measured = rate(last_, now)) {
      if (near(measured, rate_) || near(measured, lastMeasured_)) {
        rate_ = measured;
      }
      lastMeasured_ = measured;
    }
    Params next{now.cycles, base, rate_, cyclesIn(kResyncNs, rate_)};
    if (now.ns < end) {
      // Ahead of the reference: run slow enough to meet it at the next resync (at most half
      // speed).
      int64_t lead = end - now.ns;
      if (lead > kResyncNs / 2) {
        lead = kResyncNs / 2;
      }
      next.mult = static_cast<uint64_t>(static_cast<unsigned __int128>(rate_) *
                                        static_cast<uint64_t>(kResyncNs - lead) / kResyncNs);
    }
    last_ = now;
    publish(next);
    unlock();
    *ns = base;
    return true;
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

  // The try-lock records the thread that holds it, and each thread remembers which clock's
  // lock it holds itself (`heldHere_`). A read on a thread that holds the lock interrupted
  // that thread's own locked section (a signal handler): it must neither wait for nor take
  // over a lock that only the interrupted code will release, so tryLock() refuses it and the
  // read answers as a reader of another thread would. A live holder is a thread of this
  // process; anything else was inherited from the parent by a forked child (of any kind of
  // fork: the memory is copied, the threads but the forking one are not, and an id may come
  // round again in the child, where the thread then does not hold it). The child takes such a
  // lock over and completes the slot its holder may have been writing (the inactive slot,
  // written in full before it is made active). Memory shared with another process (vfork,
  // CLONE_VM) is not supported. The lock is tested before it is exchanged, so that readers
  // waiting on a resync do not fight over the line.
  static bool lockedByAnother(int32_t holder) noexcept {
    return holder != 0 && holder != Source::threadId() && Source::threadAlive(holder);
  }
  bool tryLock() noexcept {
    if (heldHere_ == this) {
      return false;
    }
    int32_t holder = owner_.load(std::memory_order_relaxed);
    if (lockedByAnother(holder) ||
        !owner_.compare_exchange_strong(holder, Source::threadId(), std::memory_order_acquire)) {
      return false;
    }
    heldHere_ = this;
    if (holder != 0) {
      for (Slot& slot : slots_) {
        uint64_t sequence = slot.sequence.load(std::memory_order_relaxed);
        if ((sequence & 1) != 0) {
          slot.sequence.store(sequence + 1, std::memory_order_relaxed);
        }
      }
    }
    return true;
  }
  void unlock() noexcept {
    owner_.store(0, std::memory_order_release);
    heldHere_ = nullptr;
  }

  static inline thread_local const CycleClock* heldHere_ = nullptr;

  std::atomic<uint8_t> active_{kNone};
  std::atomic<int32_t> owner_{0};  // thread id of the try-lock's holder, 0 when free
  std::atomic<bool> referenceOnly_{false};
  std::atomic<int64_t> floorNs_{0};
  std::atomic<unsigned> resyncs_{0};  // written under the try-lock
  Slot slots_[2];
  // Written only under the try-lock.
  bool started_ = false;
  bool haveMid_ = false;
  Sample first_{0, 0};
  Sample mid_{0, 0};
  Sample last_{0, 0};
  uint64_t rate_ = 0;          // the reference's rate, as a mult
  uint64_t lastMeasured_ = 0;  // the rate the last resync measured
};

}  // namespace Tarvo
