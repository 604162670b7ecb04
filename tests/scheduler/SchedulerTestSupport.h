// Tasks and timer tasks whose body is a function, a run log and a history count, for the
// scheduler suites.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <type_traits>

#include "Tarvo/TaskScheduler.h"

namespace Tarvo::Test {

class FnTask : public Task {
 public:
  using Body = std::function<void(FnTask&)>;
  FnTask(
      std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const std::string& name,
      Body body = [](FnTask&) {})
      : Task(std::move(scheduler), priority, name), body_(std::move(body)) {}
  void taskExecute() override {
    ++runs;
    body_(*this);
  }
  int runs = 0;

 private:
  Body body_;
};

// A task that appends its name to `log` (a string or a vector of names) on each run and
// reschedules itself while `again` says so.
template <typename Log>
std::shared_ptr<FnTask> loggingTask(const std::shared_ptr<TaskScheduler>& scheduler,
                                    TaskPriority priority, const std::string& name, Log& log,
                                    std::function<bool()> again = {}) {
  return std::make_shared<FnTask>(scheduler, priority, name, [&log, name, again](FnTask& t) {
    if constexpr (std::is_same_v<Log, std::string>) {
      log += name;
    } else {
      log.push_back(name);
    }
    if (again && again()) {
      t.scheduleTask();
    }
  });
}

class FnTimer : public TimerTask {
 public:
  using Body = std::function<void(FnTimer&)>;
  FnTimer(std::shared_ptr<TaskScheduler> scheduler, const std::string& name, Body body = {})
      : TimerTask(std::move(scheduler), TaskPriority::normal, name), body_(std::move(body)) {}
  FnTimer(TaskScheduler* scheduler, const std::string& name)
      : TimerTask(scheduler, TaskPriority::normal, name) {}
  void taskExecute() override {
    ++runs;
    if (body_) {
      body_(*this);
    }
  }
  int runs = 0;

 private:
  Body body_;
};

// How many events of `type` the root's history holds.
inline unsigned historyCount(const TaskSchedulerRoot& root, TaskSchedulerEventType type) {
  unsigned n = 0;
  for (unsigned i = 0; i < root.history()->size(); ++i) {
    n += root.history()->event(i).eventType() == type;
  }
  return n;
}

}  // namespace Tarvo::Test
