// One million tasks (or argv[1]) created, run and destroyed on an event-loop root, with random
// priorities, reschedules, suspends, resumes and destruction of queued tasks from inside other
// tasks. A model beside each task knows whether it must be on a run queue; the program checks
// that the scheduler runs exactly the queued tasks, never a suspended one, loses none, and
// that every count is back at zero once the tasks are gone.
#include <array>
#include <memory>
#include <random>
#include <vector>

#include "StressSupport.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerRootTarvo.h"

namespace {

using Tarvo::TaskPriority;

class Driver;

class StressTask : public Tarvo::Task {
 public:
  StressTask(std::shared_ptr<Tarvo::TaskScheduler> root, TaskPriority priority, Driver& driver)
      : Task(std::move(root), priority, kNames[priority.value()]), driver_(driver) {}
  void taskExecute() override;

  bool queued = false;  // the model: it must be on a run queue, or run before the loop ends

 private:
  static constexpr const char* kNames[TaskPriority::count] = {"stress-A", "stress-H", "stress-N",
                                                              "stress-L", "stress-S"};
  Driver& driver_;
};

class Driver {
 public:
  Driver(std::shared_ptr<Tarvo::TaskScheduler> root, unsigned long total, unsigned long seed)
      : root_(std::move(root)), total_(total), rng_(seed), slots_(std::min(total, 2000ul)) {}

  void run() {
    while (created_ < total_) {
      for (auto& slot : slots_) {
        if (!slot && created_ < total_) {
          slot = create();
          if (rng_() % 10 == 0) {
            suspend(*slot);
          }
        }
      }
      Tarvo::Platform::doEventLoop();
      checkSettled();
      // Resumed tasks are queued once each; their runs may suspend others again.
      for (bool any = true; any;) {
        any = false;
        for (auto& slot : slots_) {
          if (slot && slot->taskSuspended()) {
            resume(*slot);
            any = true;
          }
        }
        Tarvo::Platform::doEventLoop();
        checkSettled();
      }
      for (auto& slot : slots_) {
        slot.reset();
      }
    }
  }

  void ran(StressTask& task) {
    TARVO_CHECK(!task.taskSuspended());
    TARVO_CHECK(task.queued);
    TARVO_CHECK(!task.taskScheduled());
    task.queued = false;
    ++runs_;
    auto& other = slots_[rng_() % slots_.size()];
    switch (rng_() % 10) {
      case 0:
      case 1:
      case 2:
        schedule(task);
        ++reschedules_;
        break;
      case 3:
        if (other && other.get() != &task) {
          suspend(*other);
        }
        break;
      case 4:
        if (other && other.get() != &task) {
          resume(*other);
        }
        break;
      case 5:
        // Destroyed wherever it is: queued, suspended or idle.
        if (other && other.get() != &task) {
          droppedQueued_ += other->queued ? 1 : 0;
          other = created_ < total_ ? create() : nullptr;
        }
        break;
      default:
        break;
    }
  }

  void report() const {
    std::printf(
        "tasks created %lu, runs %lu, reschedules %lu, suspends %lu, resumes %lu, "
        "destroyed while queued %lu\n",
        created_, runs_, reschedules_, suspends_, resumes_, droppedQueued_);
  }

 private:
  std::shared_ptr<StressTask> create() {
    auto task =
        std::make_shared<StressTask>(root_, TaskPriority(static_cast<int>(rng_() % 5)), *this);
    ++created_;
    schedule(*task);
    return task;
  }
  void schedule(StressTask& task) {
    task.scheduleTask();
    task.queued = !task.taskSuspended();
    TARVO_CHECK(task.taskScheduled() == task.queued);
  }
  void suspend(StressTask& task) {
    ++suspends_;
    task.taskSuspendedIs(true);
    task.queued = false;
    TARVO_CHECK(!task.taskScheduled());
  }
  void resume(StressTask& task) {
    if (task.taskSuspended()) {
      ++resumes_;
      task.taskSuspendedIs(false);
      task.queued = true;
      TARVO_CHECK(task.taskScheduled());
    }
  }
  // After a loop pass nothing may be left on a run queue.
  void checkSettled() const {
    TARVO_CHECK(root_->runnableTaskCount() == 0);
    for (const auto& slot : slots_) {
      TARVO_CHECK(!slot || (!slot->queued && !slot->taskScheduled()));
    }
  }

  std::shared_ptr<Tarvo::TaskScheduler> root_;
  unsigned long total_;
  std::mt19937_64 rng_;
  std::vector<std::shared_ptr<StressTask>> slots_;
  unsigned long created_ = 0, runs_ = 0, reschedules_ = 0, suspends_ = 0, resumes_ = 0,
                droppedQueued_ = 0;
};

void StressTask::taskExecute() {
  driver_.ran(*this);
}

}  // namespace

int main(int argc, char** argv) {
  auto o = Tarvo::Stress::options(argc, argv, "stress_tasks", 1000000);
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvoNonShared("stress");
  {
    Driver driver(root, o.count, o.seed);
    driver.run();
    driver.report();
  }
  TARVO_CHECK(root->registeredTaskCount() == 0);
  TARVO_CHECK(root->runnableTaskCount() == 0);
  for (unsigned p = 0; p < TaskPriority::count; ++p) {
    TARVO_CHECK(root->tasksPerPriority(TaskPriority(static_cast<int>(p))) == 0);
  }
  root.reset();
  std::printf("task counts back at zero\n");
  return 0;
}
