#include "Tarvo/FileDescriptorTask.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "Tarvo/Exception.h"
#include "platform/ProcessClock.h"
#include "scheduler/SchedulerText.h"
#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

namespace {

const char* const kSource = "TaskScheduler";

std::shared_ptr<TaskScheduler> sharedScheduler(TaskScheduler* scheduler) {
  return scheduler ? scheduler->shared_from_this() : std::shared_ptr<TaskScheduler>();
}

}  // namespace

// ---- Sub-tasks ----

FileDescriptorTask::ReadWriteTaskBase::ReadWriteTaskBase(std::shared_ptr<TaskScheduler> scheduler,
                                                         TaskPriority priority,
                                                         const std::string& name,
                                                         FileDescriptorTask* owner)
    : Task(std::move(scheduler), priority, name), owner_(owner) {}

void FileDescriptorTask::ReadWriteTaskBase::handleTaskBusy() {
  if (owner_) {
    owner_->taskBusyIs(owner_->taskScheduled(), processClockNow());
  }
}

void FileDescriptorTask::ReadTask::taskExecute() {
  if (FileDescriptorTask* owner = owner_) {
    owner->_taskExecuteReadable();
  }
}

void FileDescriptorTask::ReadTask::handleResetStats() {
  if (owner_) {
    owner_->handleResetStats();
  }
}

void FileDescriptorTask::WriteTask::taskExecute() {
  if (FileDescriptorTask* owner = owner_) {
    owner->_taskExecuteWritable();
  }
}

// ---- Construction ----

FileDescriptorTask::FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler,
                                       TaskPriority priority, std::string name)
    : _TaskBase(std::move(scheduler), priority, name),
      fdControl_(Platform::getFdControl(this)),
      readTask_(std::make_shared<ReadTask>(scheduler_, priority, name + ":read", this)) {
  taskWatchReadableIs(true);
  taskWatchWritableIs(false);
}

FileDescriptorTask::FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority,
                                       std::string name)
    : FileDescriptorTask(sharedScheduler(scheduler), priority, std::move(name)) {}

FileDescriptorTask::~FileDescriptorTask() {
  readTask_->owner_ = nullptr;
  if (writeTask_) {
    writeTask_->owner_ = nullptr;
  }
  writeTask_.reset();
  readTask_.reset();
  fdControl_.reset();
}

// ---- Readiness and the two hooks ----

void FileDescriptorTask::readFdEvent(int fd) {
  check(taskWatchReadable_, "readFdEvent() called with taskWatchReadable off");
  if (fd != taskWatchFd()) {
    fatal(concat("Notified about ", fd, " watching ", taskWatchFd()));
  }
  scheduleTaskReadable();
}

void FileDescriptorTask::writeFdEvent(int fd) {
  check(taskWatchWritable_, "writeFdEvent() called with taskWatchWritable off");
  if (fd != taskWatchFd()) {
    fatal(concat("Notified about ", fd, " watching ", taskWatchFd()));
  }
  scheduleTaskWritable();
}

void FileDescriptorTask::_taskExecuteReadable() {
  // Keeps this object alive should the hook drop the last outside reference.
  std::shared_ptr<_TaskBase> self = shared_from_this();
  if (!taskWatchReadable_) {
    debugAndThrowAssertException(&schedulerTrace(), 1,
                                 "ReadTask should only run if taskWatchReadable", kSource,
                                 "_taskExecuteReadable", __LINE__);
  }
  if (executingTask_) {
    debugAndThrowAssertException(&schedulerTrace(), 1, "Executing task already set", kSource,
                                 "_taskExecuteReadable", __LINE__);
  }
  executingTask_ = readTask_.get();
  taskExecuteReadable();
  executingTask_ = nullptr;
}

void FileDescriptorTask::_taskExecuteWritable() {
  std::shared_ptr<_TaskBase> self = shared_from_this();
  taskWatchWritableIs(false);
  if (executingTask_) {
    debugAndThrowAssertException(&schedulerTrace(), 1, "Executing task already set", kSource,
                                 "_taskExecuteWritable", __LINE__);
  }
  executingTask_ = writeTask_.get();
  taskExecuteWritable();
  executingTask_ = nullptr;
}

bool FileDescriptorTask::taskScheduled() const {
  return taskScheduledReadable() || taskScheduledWritable();
}

bool FileDescriptorTask::taskShouldYield() const {
  check(executingTask_ != nullptr, "taskShouldYield() called outside the descriptor hooks");
  return executingTask_->taskShouldYield();
}

void FileDescriptorTask::taskWorkCountInc(unsigned long long n) {
  check(executingTask_ != nullptr, "taskWorkCountInc() called outside the descriptor hooks");
  executingTask_->taskWorkCountInc(n);
}

void FileDescriptorTask::taskWorkPendingIs(unsigned n) {
  check(executingTask_ != nullptr, "taskWorkPendingIs() called outside the descriptor hooks");
  executingTask_->taskWorkPendingIs(n);
}

// ---- Descriptor and watching ----

int FileDescriptorTask::taskWatchFd() const {
  return fdControl_->getFd();
}

void FileDescriptorTask::taskWatchFdIs(int fd) {
  if (fd == taskWatchFd()) {
    return;
  }
  // The control would end the process on a descriptor it cannot put into non-blocking mode;
  // a caller's bad descriptor deserves an exception it can catch instead.
  if (fd < 0 || fcntl(fd, F_GETFD) < 0) {
    const int error = fd < 0 ? EBADF : errno;
    debugAndThrowAssertException(
        &schedulerTrace(), 1,
        concat(this, ": cannot watch descriptor ", fd, ": ", std::strerror(error)), kSource,
        "taskWatchFdIs", __LINE__);
  }
  readTask_->unscheduleTask();
  if (writeTask_) {
    writeTask_->unscheduleTask();
  }
  fdControl_->setFd(fd);
}

void FileDescriptorTask::taskWatchFdDel() {
  readTask_->unscheduleTask();
  if (writeTask_) {
    writeTask_->unscheduleTask();
  }
  fdControl_->delFd();
}

void FileDescriptorTask::taskWatchReadableIs(bool on) {
  if (on == taskWatchReadable_) {
    return;
  }
  taskWatchReadable_ = on;
  fdControl_->setReads(on);
  if (!on) {
    readTask_->unscheduleTask();
  }
}

void FileDescriptorTask::taskWatchWritableIs(bool on) {
  if (on == taskWatchWritable_) {
    return;
  }
  checkCreateWriteTask();
  taskWatchWritable_ = on;
  fdControl_->setWrites(on);
  if (!on) {
    writeTask_->unscheduleTask();
  }
}

void FileDescriptorTask::scheduleTaskReadable() {
  readTask_->scheduleTask();
}

void FileDescriptorTask::scheduleTaskWritable() {
  checkCreateWriteTask();
  writeTask_->scheduleTask();
}

void FileDescriptorTask::checkCreateWriteTask() {
  if (writeTask_) {
    return;
  }
  writeTask_ =
      std::make_shared<WriteTask>(scheduler_, taskPriority_, taskName_.str() + ":write", this);
  const bool forcedYield = readTask_->taskTestYieldRatio() == 1;
  if (!forcedYield) {
    writeTask_->taskQuantumIs(readTask_->taskQuantum());
  }
  writeTask_->taskSuspendedIs(readTask_->taskSuspended());
  writeTask_->taskForceYieldInTestIs(forcedYield);
}

// ---- Forwarded settings ----

void FileDescriptorTask::taskQuantumIs(nanoseconds q) {
  readTask_->taskQuantumIs(q);
  if (writeTask_) {
    writeTask_->taskQuantumIs(q);
  }
}

void FileDescriptorTask::taskSuspendedIs(bool suspended) {
  readTask_->taskSuspendedIs(suspended);
  if (writeTask_) {
    writeTask_->taskSuspendedIs(suspended);
  }
}

void FileDescriptorTask::taskForceYieldInTestIs(bool on) {
  readTask_->taskForceYieldInTestIs(on);
  if (writeTask_) {
    writeTask_->taskForceYieldInTestIs(on);
  }
}

void FileDescriptorTask::taskTestYieldRatioIs(uint8_t ratio) {
  readTask_->taskTestYieldRatioIs(ratio);
  if (writeTask_) {
    // Deliberately this object again, not the write task (see the header).
    taskTestYieldRatioIs(ratio);
  }
}

FileDescriptorTask::nanoseconds FileDescriptorTask::taskQuantum() const {
  return readTask_->taskQuantum();
}

bool FileDescriptorTask::taskSuspended() const {
  return readTask_->taskSuspended();
}

uint8_t FileDescriptorTask::taskTestYieldRatio() const {
  return readTask_->taskTestYieldRatio();
}

bool FileDescriptorTask::taskForceYieldInTest() const {
  return readTask_->taskTestYieldRatio() == 1;
}

// ---- Status and work counts ----

bool FileDescriptorTask::taskScheduledReadable() const {
  return readTask_->taskScheduled();
}

bool FileDescriptorTask::taskScheduledWritable() const {
  return writeTask_ && writeTask_->taskScheduled();
}

uint64_t FileDescriptorTask::taskWorkCountReadableTotal() const {
  return readTask_->getStats().taskWorkCountTotal();
}

float FileDescriptorTask::taskWorkCountReadableDecayAvg() const {
  return readTask_->taskWorkCountDecayAvg();
}

uint32_t FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
  return readTask_->taskWorkCountHighWaterMark().value();
}

void FileDescriptorTask::taskWorkCountReadableInc(uint64_t count) {
  readTask_->taskWorkCountInc(count);
}

uint64_t FileDescriptorTask::taskWorkCountWritableTotal() const {
  return writeTask_ ? writeTask_->getStats().taskWorkCountTotal() : 0;
}

float FileDescriptorTask::taskWorkCountWritableDecayAvg() const {
  return writeTask_ ? writeTask_->taskWorkCountDecayAvg() : 0.0f;
}

uint32_t FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
  return writeTask_ ? writeTask_->taskWorkCountHighWaterMark().value() : 0;
}

void FileDescriptorTask::taskWorkCountWritableInc(uint64_t count) {
  if (!writeTask_) {
    debugAndThrowAssertException(&schedulerTrace(), 1,
                                 "WriteTask not created by taskWatchWritableIs( true )", kSource,
                                 "taskWorkCountWritableInc", __LINE__);
  }
  writeTask_->taskWorkCountInc(count);
}

}  // namespace Tarvo
