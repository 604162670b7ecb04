// Tasks whose body is a function, and a log of which task ran, for the scheduler suites.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Tarvo/TaskScheduler.h"

namespace Tarvo::Test {

class FnTask : public Task {
 public:
  using Body = std::function<void(FnTask&)>;
  FnTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, const std::string& name,
         Body body = {})
      : Task(std::move(scheduler), priority, name), body_(std::move(body)) {}
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

// A task that appends its name to `log` on each run and reschedules itself while `again`
// says so.
inline std::shared_ptr<FnTask> loggingTask(const std::shared_ptr<TaskScheduler>& scheduler,
                                           TaskPriority priority, const std::string& name,
                                           std::vector<std::string>& log,
                                           std::function<bool()> again = {}) {
  return std::make_shared<FnTask>(scheduler, priority, name, [&log, name, again](FnTask& t) {
    log.push_back(name);
    if (again && again()) {
      t.scheduleTask();
    }
  });
}

}  // namespace Tarvo::Test
