#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "Tarvo/TaskClock.h"
#include "common/TestSupport.h"
#include "platform/CycleClock.h"
#include "platform/ProcessClock.h"

namespace {

// A counter and a reference clock that move only when the test says so. `interrupt` runs
// once, inside the counter read that follows `readsBeforeInterrupt` others: another thread
// getting in at that point.
struct FakeSource {
  static inline uint64_t counter;
  static inline int64_t reference;
  static inline bool usable;
  static inline int32_t tid;          // the calling thread's id
  static inline int32_t otherThread;  // another live thread of the process, 0 for none
  static inline int readsBeforeInterrupt = -1;
  static inline std::function<void()> interrupt;

  static uint64_t cycles() {
    if (readsBeforeInterrupt >= 0 && readsBeforeInterrupt-- == 0) {
      interrupt();
    }
    return counter;
  }
  static int64_t referenceNs() { return reference; }
  static bool cyclesUsable() { return usable; }
  static int32_t threadId() { return tid; }
  static bool threadAlive(int32_t id) { return id == tid || id == otherThread; }

  static void reset(bool counterUsable) {
    counter = 1'000'000'000;
    reference = 7'000'000'000;
    usable = counterUsable;
    tid = 100;
    otherThread = 0;
    readsBeforeInterrupt = -1;
  }
  // Both move: three counts per nanosecond, the reference at (1 + ppm / 10^6) of that.
  static void advance(int64_t ns, int64_t ppm = 0) {
    counter += static_cast<uint64_t>(3 * ns);
    reference += ns + ns * ppm / 1'000'000;
  }
};

using FakeClock = Tarvo::CycleClock<FakeSource>;
constexpr int64_t kMs = 1'000'000;

// Reads every 10 microseconds for `ms`, checking that readings never go back; returns the
// largest distance from the reference seen after the first `settleMs`.
int64_t followFor(FakeClock& clock, int ms, int64_t ppm, int settleMs, int64_t* previous) {
  constexpr int kReadsPerMs = 100;
  int64_t worst = 0;
  for (int i = 0; i < ms * kReadsPerMs; ++i) {
    FakeSource::advance(kMs / kReadsPerMs, ppm);
    int64_t now = clock.nowNs();
    if (now < *previous) {
      ADD_FAILURE() << "went back by " << *previous - now << " ns after " << i << " reads";
    }
    *previous = now;
    if (i >= settleMs * kReadsPerMs) {
      worst = std::max(worst, std::abs(now - FakeSource::reference));
    }
  }
  return worst;
}

TEST(CycleClock, CalibratesOnTheReferenceThenScalesTheCounter) {
  FakeSource::reset(true);
  FakeClock clock;
  // Calibrating: every reading is the reference. The machine pauses in the second half-window
  // (the reference moves on, the counter does not), so the two halves disagree and the
  // measurement starts over; two clean halves later the rate is the counter's true one.
  EXPECT_EQ(clock.nowNs(), FakeSource::reference);
  FakeSource::advance(5 * kMs);
  EXPECT_EQ(clock.nowNs(), FakeSource::reference);
  FakeSource::advance(5 * kMs);
  FakeSource::reference += 2 * kMs;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(clock.nowNs(), FakeSource::reference);
    FakeSource::advance(5 * kMs);
  }
  int64_t calibrated = FakeSource::reference;
  EXPECT_EQ(clock.nowNs(), calibrated);
  // From now on the counter alone moves the clock.
  FakeSource::counter += 3 * kMs;
  EXPECT_NEAR(clock.nowNs(), calibrated + kMs, 1);
  FakeSource::reference += 40 * kMs;
  EXPECT_NEAR(clock.nowNs(), calibrated + kMs, 1) << "the reference is only read at a resync";
}

TEST(CycleClock, FollowsTheReferenceThroughRateChangesSleepsAndCounterResets) {
  FakeSource::reset(true);
  FakeClock clock;
  int64_t previous = 0;
  EXPECT_LE(followFor(clock, 500, 0, 20, &previous), 1);
  // The reference speeds up and slows down by 500 ppm (the most that time adjustments slew
  // it): the lag stays within one resync interval's drift and vanishes once the new rate is
  // measured.
  constexpr int64_t kIntervalDrift = FakeClock::kResyncNs * 500 / 1'000'000;
  EXPECT_LE(followFor(clock, 300, 500, 0, &previous), 2 * kIntervalDrift);
  EXPECT_LE(followFor(clock, 300, 500, 150, &previous), 2);
  EXPECT_LE(followFor(clock, 300, -500, 0, &previous), 2 * kIntervalDrift);
  EXPECT_LE(followFor(clock, 300, -500, 150, &previous), 2);
  EXPECT_LE(followFor(clock, 300, 0, 150, &previous), 2);

  // Suspended for a minute: the reference moved on, the counter did not.
  FakeSource::reference += 60'000 * kMs;
  FakeSource::counter += 3 * FakeClock::kResyncNs;
  EXPECT_EQ(clock.nowNs(), FakeSource::reference);
  previous = FakeSource::reference;
  EXPECT_LE(followFor(clock, 200, 0, 60, &previous), 2);
  // The counter starts again from zero: the clock resyncs at once without going back, then
  // runs slow until the reference catches up with it.
  FakeSource::counter = 0;
  int64_t held = clock.nowNs();
  EXPECT_GE(held, previous);
  previous = held;
  EXPECT_LE(followFor(clock, 300, 0, 150, &previous), 2);
}

TEST(CycleClock, AResyncThatLostTheRaceReadsAgain) {
  FakeSource::reset(true);
  FakeClock clock;
  int64_t previous = 0;
  // The reference runs slow through a whole span, so the clock is ahead of it at the resync,
  // and a stale resync would start below what the newer parameters have already answered.
  followFor(clock, 100, 0, 0, &previous);
  FakeSource::advance(FakeClock::kResyncNs + kMs, -800);
  // This read finds its parameters past their span; before it gets to resync them, another
  // thread resyncs and reads again a millisecond later.
  int64_t otherRead = 0;
  FakeSource::interrupt = [&] {
    clock.nowNs();
    FakeSource::advance(kMs, -800);
    otherRead = clock.nowNs();
  };
  FakeSource::readsBeforeInterrupt = 1;
  int64_t read = clock.nowNs();
  ASSERT_GT(otherRead, 0) << "the interruption ran";
  EXPECT_GE(read, otherRead);
  EXPECT_GE(clock.nowNs(), read);
}

TEST(CycleClock, AChildForkedWhileTheClockIsLockedTakesItOver) {
  // The process forks while its thread 100 holds the clock's lock (inside the first read's
  // calibration sample): the child has the clock's memory, lock held, but not the holder. Its
  // thread (another real thread here, since the child's thread holds nothing) gets a new id,
  // or in a new pid namespace perhaps the same one. Either way the child must calibrate and
  // then run on the counter; but a lock held by a live thread of the process is left alone,
  // and the clock goes on reading the reference while it waits.
  struct Row {
    int32_t childTid, otherThread;
    bool takesOver;
  };
  for (auto [childTid, otherThread, takesOver] :
       {Row{200, 0, true}, Row{100, 0, true}, Row{101, 100, false}}) {
    SCOPED_TRACE("child thread " + std::to_string(childTid));
    FakeSource::reset(true);
    FakeClock clock;
    int64_t aheadOfReference = -1;
    FakeSource::interrupt = [&] {
      std::thread([&] {
        FakeSource::tid = childTid;
        FakeSource::otherThread = otherThread;
        for (int i = 0; i < 4; ++i) {
          FakeSource::advance(5 * kMs);
          clock.nowNs();
        }
        FakeSource::counter += 3 * kMs;
        aheadOfReference = clock.nowNs() - FakeSource::reference;
      }).join();
    };
    FakeSource::readsBeforeInterrupt = 0;
    clock.nowNs();
    EXPECT_NEAR(aheadOfReference, takesOver ? kMs : 0, 1);
  }
}

FakeClock* signalledClock = nullptr;
volatile sig_atomic_t handlerReads = 0;

void readInHandler(int) {
  signalledClock->nowNs();
  handlerReads = handlerReads + 1;
}

TEST(CycleClock, ASignalHandlerReadingMidResyncNeitherWaitsNorBreaksTheClock) {
  // Every read of the loop below resyncs, while another thread keeps signalling this one and
  // the handler reads the clock too, so handlers land inside publications. In a child, so
  // that a hang ends in the alarm instead of stalling the suite.
  auto child = Tarvo::Test::runInChild([] {
    alarm(10);
    FakeSource::reset(true);
    FakeClock clock;
    signalledClock = &clock;
    int64_t previous = 0;
    followFor(clock, 20, 0, 0, &previous);
    signal(SIGUSR1, readInHandler);
    pthread_t self = pthread_self();
    std::atomic<bool> stop{false};
    std::thread sender([&] {
      while (!stop) {
        pthread_kill(self, SIGUSR1);
      }
    });
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    int wentBack = 0;
    while (handlerReads < 50000 && std::chrono::steady_clock::now() < end) {
      FakeSource::advance(FakeClock::kResyncNs);
      int64_t now = clock.nowNs();
      wentBack += now < previous;
      previous = now;
    }
    stop = true;
    sender.join();
    signal(SIGUSR1, SIG_DFL);
    FakeSource::advance(kMs);
    int64_t step = clock.nowNs() - previous;
    std::printf("handler reads %d, went back %d, last step %lld\n", int(handlerReads), wentBack,
                static_cast<long long>(step));
    return wentBack == 0 && handlerReads > 0 && std::abs(step - kMs) <= 1 ? 0 : 1;
  });
  EXPECT_EQ(child.signal, 0) << child.out;
  EXPECT_EQ(child.exitCode, 0) << child.out;
}

TEST(CycleClock, AnUnusableCounterLeavesTheClockOnTheReference) {
  FakeSource::reset(false);
  FakeClock fromStart;
  for (int i = 0; i < 100; ++i) {
    FakeSource::advance(kMs);
    FakeSource::counter += 977 * i;
    EXPECT_EQ(fromStart.nowNs(), FakeSource::reference);
  }
  FakeSource::reset(true);
  FakeClock clock;
  int64_t previous = 0;
  followFor(clock, 100, 0, 0, &previous);
  // The kernel stops trusting the counter; the clock, ahead of a slow reference, notices at
  // its next check and from then on holds until the reference passes it.
  FakeSource::usable = false;
  followFor(clock, FakeClock::kRecheckResyncs * 50 + 100, -500, 0, &previous);
  FakeSource::counter = 0;
  for (int i = 0; i < 3; ++i) {
    FakeSource::advance(kMs);
    EXPECT_EQ(clock.nowNs(), FakeSource::reference);
  }
}

TEST(CycleClock, ProcessSourceTellsLiveThreadsAndKeepsErrno) {
  using Tarvo::ProcessClockSource;
  const int32_t mainId = ProcessClockSource::threadId();
  int32_t otherId = 0;
  bool bothAlive = false;
  std::thread([&] {
    otherId = ProcessClockSource::threadId();
    bothAlive = ProcessClockSource::threadAlive(mainId) && ProcessClockSource::threadAlive(otherId);
  }).join();
  EXPECT_NE(otherId, mainId);
  EXPECT_TRUE(bothAlive);
  // join() returns once the kernel has cleared the thread's id, which it does a moment before
  // the thread has finished exiting; until then a signal can still reach it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (ProcessClockSource::threadAlive(otherId) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  errno = EINTR;
  EXPECT_FALSE(ProcessClockSource::threadAlive(otherId)) << "a joined thread is gone";
  ProcessClockSource::cyclesUsable();
  EXPECT_EQ(errno, EINTR);
}

TEST(CycleClock, TaskClockStaysBesideSteadyClockOnEveryThread) {
  using std::chrono::steady_clock;
  // Long enough to cover calibration and a few resyncs; readings must stay between the
  // steady-clock readings around them, give or take the clock's small lead, and never go back.
  // Behind by more only while standing still: a loaded machine can take the processor from a
  // thread that holds the clock's lock, and the others wait at the value they had.
  constexpr auto kSlack = std::chrono::microseconds(50);
  auto watch = [&] {
    auto end = steady_clock::now() + std::chrono::milliseconds(150);
    Tarvo::TaskTimePoint previous = Tarvo::TaskClock::now();
    for (auto before = steady_clock::now(); before < end; before = steady_clock::now()) {
      Tarvo::TaskTimePoint now = Tarvo::TaskClock::now();
      auto after = steady_clock::now();
      if (now < previous || (now < before - kSlack && now != previous) || now > after + kSlack) {
        return "reading " + std::to_string((now - before).count()) + " ns after the one before " +
               "it, previous " + std::to_string((now - previous).count()) + " ns before it, " +
               "window " + std::to_string((after - before).count()) + " ns";
      }
      previous = now;
    }
    return std::string();
  };
  std::string otherFailure;
  std::thread other([&] { otherFailure = watch(); });
  EXPECT_EQ(watch(), "");
  other.join();
  EXPECT_EQ(otherFailure, "");
}

}  // namespace
