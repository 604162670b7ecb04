// Tasks whose body is a function, and a run log, for the scheduler suites.
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

}  // namespace Tarvo::Test
