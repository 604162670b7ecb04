// The platform controls backed by scheduler tasks. The classes are private to this file;
// only the factory overloads are public.
#include "Tarvo/TaskControls.h"

#include "Tarvo/Exception.h"
#include "Tarvo/TaskScheduler.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo::Platform {
namespace {

void requireHandler(const void* handler, const char* function, int line) {
  if (handler == nullptr) {
    debugAndThrowAssertException(&schedulerTrace(), 0, "a control needs a handler", "TaskScheduler",
                                 function, line);
  }
}

class TaskTimerControl : public TimerTask, public TimerControl {
 public:
  TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                   TaskPriority priority, std::string name)
      : TimerTask(std::move(scheduler), priority, name), handler_(handler) {}

  void setTimeout(double seconds) override { scheduleTaskDelay(seconds); }
  void delTimeout() override { stopTimerTask(); }
  double remainingTimeout() const override { return timerRemaining(); }
  void taskExecute() override { handler_->timeout(); }

 private:
  TimeoutHandler* handler_;
};

class TaskCallbackControl : public Task, public CallbackControl {
 public:
  TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                      TaskPriority priority, std::string name)
      : Task(std::move(scheduler), priority, name), handler_(handler) {}

  void requestCallback() override { scheduleTask(); }
  void cancelCallback() override { unscheduleTask(); }
  bool pendingCallback() const override { return taskScheduled(); }
  void taskExecute() override { handler_->callback(); }

 private:
  CallbackHandler* handler_;
};

// FdEventHandler is a private base of FileDescriptorTask, so inside this class the handler
// type is named through its namespace.
class TaskFdControl : public FileDescriptorTask, public FdControl {
 public:
  TaskFdControl(Platform::FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                TaskPriority priority, std::string name)
      : FileDescriptorTask(std::move(scheduler), priority, std::move(name)), handler_(handler) {}

  void setReads(bool on) override { taskWatchReadableIs(on); }
  void setWrites(bool on) override { taskWatchWritableIs(on); }
  void setFd(int fd) override { taskWatchFdIs(fd); }
  void delFd() override { taskWatchFdDel(); }
  int getFd() const override { return taskWatchFd(); }
  void clearEvents() override { taskWatchFdDel(); }

  void taskExecuteReadable() override { notify(&Platform::FdEventHandler::readFdEvent); }
  void taskExecuteWritable() override { notify(&Platform::FdEventHandler::writeFdEvent); }

 private:
  void notify(void (Platform::FdEventHandler::*op)(int)) {
    const int fd = getFd();
    try {
      (handler_->*op)(fd);
    } catch (...) {
      if (!handler_->handleFdException(getFd())) {
        throw;
      }
    }
  }

  Platform::FdEventHandler* handler_;
};

}  // namespace

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, std::string name) {
  requireHandler(handler, __func__, __LINE__);
  return std::make_shared<TaskTimerControl>(handler, std::move(scheduler), priority,
                                            std::move(name));
}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                    std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, std::string name) {
  requireHandler(handler, __func__, __LINE__);
  return std::make_shared<TaskCallbackControl>(handler, std::move(scheduler), priority,
                                               std::move(name));
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                        std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, std::string name) {
  requireHandler(handler, __func__, __LINE__);
  return std::make_shared<TaskFdControl>(handler, std::move(scheduler), priority, std::move(name));
}

}  // namespace Tarvo::Platform
