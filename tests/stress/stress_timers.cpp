// 100,000 timer tasks (or argv[1]) on an event-loop root under fast-forward, all armed at
// once with random delays of up to a day; a tenth re-armed to another delay and a twentieth
// stopped before the loop runs. One loop call then fast-forwards through all of them: each
// armed task must run exactly once, not before its virtual expiry, and in expiry order; a
// stopped one never. At the end the counts are back at zero.
//
// Each fast-forward step moves every pending timer, so the run costs the number of steps
// (about one per timer: the delays are whole milliseconds) times the number pending.
#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "StressSupport.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskSchedulerRootTarvo.h"
#include "Tarvo/TimerTask.h"

namespace {

// The expiry is read here and inside the library a few microseconds apart.
constexpr double kSlack = 1e-3;
// Timers with short delays fall due in real time while the others are still being armed, and
// fire late by up to the time that the arming took. Beyond that a timer fires late only by
// the real time of the step that passed its expiry, while one that the steps failed to move
// would be late by their advances (most are near a second, many add up to hours).
constexpr double kStepAllowance = 0.5;

class StressTimer : public Tarvo::TimerTask {
 public:
  StressTimer(std::shared_ptr<Tarvo::TaskScheduler> root, std::vector<StressTimer*>& order)
      : TimerTask(std::move(root), Tarvo::TaskPriority::normal, "stress-timer"), order_(order) {}
  void taskExecute() override {
    ++runs;
    ranAt = Tarvo::time();
    order_.push_back(this);
  }
  void arm(double delay) {
    expiry = Tarvo::time() + delay;
    scheduleTaskDelay(delay);
  }

  double expiry = 0;  // virtual time, as Tarvo::time() counts it
  double ranAt = 0;
  int runs = 0;
  bool stopped = false;

 private:
  std::vector<StressTimer*>& order_;
};

}  // namespace

int main(int argc, char** argv) {
  auto o = Tarvo::Stress::options(argc, argv, "stress_timers", 100000);
  std::mt19937_64 rng(o.seed);
  // Whole milliseconds up to a day.
  auto delay = [&] { return static_cast<double>(rng() % 86400000 + 1) / 1000; };
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvoNonShared("stress");
  std::vector<StressTimer*> order;
  order.reserve(o.count);
  const double start = Tarvo::time();
  unsigned long rearmed = 0, stopped = 0;
  double maxLate = 0, maxEarly = 0, maxInversion = 0;
  std::vector<std::shared_ptr<StressTimer>> timers;
  timers.reserve(o.count);
  for (unsigned long i = 0; i < o.count; ++i) {
    timers.push_back(std::make_shared<StressTimer>(root, order));
    timers.back()->arm(delay());
  }
  for (auto& timer : timers) {
    switch (rng() % 20) {
      case 0:
      case 1:
        timer->arm(delay());
        ++rearmed;
        break;
      case 2:
        timer->stopTimerTask();
        timer->stopped = true;
        TARVO_CHECK(!timer->timerRunning());
        ++stopped;
        break;
      default:
        break;
    }
  }
  const double lateLimit = Tarvo::time() - start + kStepAllowance;
  Tarvo::Platform::setFastForward(true);
  Tarvo::Platform::doEventLoop();
  Tarvo::Platform::setFastForward(false);

  for (size_t k = 0; k < order.size(); ++k) {
    const StressTimer& t = *order[k];
    TARVO_CHECK(!t.stopped && t.runs == 1 && !t.timerRunning());
    TARVO_CHECK(t.ranAt >= t.expiry - kSlack && t.ranAt < t.expiry + lateLimit);
    if (k > 0) {
      maxInversion = std::max(maxInversion, order[k - 1]->expiry - t.expiry);
      TARVO_CHECK(t.expiry >= order[k - 1]->expiry - kSlack);
    }
    maxLate = std::max(maxLate, t.ranAt - t.expiry);
    maxEarly = std::max(maxEarly, t.expiry - t.ranAt);
  }
  for (const auto& timer : timers) {
    TARVO_CHECK(timer->runs == (timer->stopped ? 0 : 1));
  }
  const unsigned long fired = order.size();
  timers.clear();
  TARVO_CHECK(fired == o.count - stopped);
  std::printf(
      "timers %lu, re-armed %lu, stopped %lu, fired %lu, virtual span %.0f s, "
      "arming %.3f s, latest firing %.6f s after its expiry, earliest %.6f s before it, largest "
      "inversion "
      "%.6f s\n",
      o.count, rearmed, stopped, fired, Tarvo::time() - start, lateLimit - kStepAllowance, maxLate,
      maxEarly, maxInversion);
  TARVO_CHECK(root->registeredTaskCount() == 0);
  TARVO_CHECK(root->runnableTaskCount() == 0);
  root.reset();
  std::printf("task counts back at zero\n");
  return 0;
}
