// FileDescriptorTask: readiness of one descriptor turned into scheduled work.
//
// A FileDescriptorTask is not run by the scheduler itself. It owns two ordinary tasks, a
// ReadTask ("<name>:read", always present) and a WriteTask ("<name>:write", created on first
// need), registered in the owner's scheduler at the owner's priority. A platform fd control
// watches the descriptor; readiness only makes the matching sub-task runnable, and when the
// scheduler picks it, it calls the subclass's taskExecuteReadable() or taskExecuteWritable().
// The two directions are thus scheduled, measured and yielded separately while the user
// writes one class:
//
//   class Echo : public Tarvo::FileDescriptorTask {
//    public:
//     using FileDescriptorTask::FileDescriptorTask;
//     void taskExecuteReadable() override {
//       char buf[4096];
//       const int fd = taskWatchFd();
//       for (;;) {
//         ssize_t n = ::read(fd, buf, sizeof buf);
//         if (n > 0) { consume(buf, n); if (taskShouldYield()) return; continue; }
//         if (n == 0) { taskWatchFdDel(); ::close(fd); return; }    // peer closed
//         if (errno == EINTR) continue;
//         if (errno == EAGAIN || errno == EWOULDBLOCK) return;      // drained: wait again
//         throw ...;                                                // a real error
//       }
//     }
//     void taskExecuteWritable() override { ... if (more) taskWatchWritableIs(true); }
//   };
//   auto echo = std::make_shared<Echo>(root, Tarvo::TaskPriority::normal, "echo");
//   echo->taskWatchFdIs(fd);        // reads are watched from construction on
//
// Directions. Read watching stays on until switched off: a descriptor that stays readable
// makes the read task runnable again after each run, so a hook that returns before draining
// (to yield) is simply run again. Write watching is one-shot: each run of the write task
// switches it off before calling taskExecuteWritable(), and the hook switches it on again
// with taskWatchWritableIs(true) while it still has data to send. The control puts the
// descriptor into non-blocking mode; EOF (read returning 0) and EAGAIN are the hook's to
// handle. The task never closes the descriptor.
//
// Lifetime. Create it with std::make_shared: each hook holds a shared reference to the
// object for its whole call, so a hook may drop the last outside reference (for instance on
// EOF). Destroying the object stops watching; sub-tasks that someone still holds (through
// readTask()/writeTask(), or the scheduler while one runs) survive, and their runs then do
// nothing.
//
// Threads. Everything belongs to the thread of the scheduler's root: readiness comes from that
// thread's event loop and the sub-tasks run from its run queues. Nothing locks.
//
// Failures.
//  - A readiness report with the direction unwatched, or for another descriptor, ends the
//    process ("readFdEvent() called with taskWatchReadable off", "writeFdEvent() called with
//    taskWatchWritable off", "Notified about <fd> watching <watched>").
//  - taskWatchFdIs() with a negative or closed descriptor throws AssertException and changes
//    nothing.
//  - The read task running with reads unwatched throws AssertException "ReadTask should only
//    run if taskWatchReadable"; a hook entered while another runs throws "Executing task
//    already set"; taskWorkCountWritableInc() without a write task throws "WriteTask not
//    created by taskWatchWritableIs( true )".
//  - An exception from a hook passes through the sub-task to the scheduler run and on to the
//    event-loop call. The object is then left marked as still executing that hook, so every
//    later run of either sub-task throws "Executing task already set": a hook that throws
//    leaves its FileDescriptorTask unusable, and is meant to be fixed, not survived.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo {

// Readiness of one descriptor turned into a read task and a write task; see the top of this
// file.
class FileDescriptorTask : public _TaskBase, private Platform::FdEventHandler {
 public:
  // Quanta of the sub-tasks.
  using nanoseconds = std::chrono::nanoseconds;

  // A sub-task: a plain task that knows its owner until the owner is destroyed. Its busy
  // state is reported to the owner, which is busy while either direction is scheduled.
  class ReadWriteTaskBase : public Task {
   public:
    // A sub-task of `owner` in `scheduler`; the owner, until the owner is destroyed.
    ReadWriteTaskBase(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                      const std::string& name, FileDescriptorTask* owner);
    FileDescriptorTask* owner() const noexcept { return owner_; }
    void handleTaskBusy() override;

   private:
    friend class FileDescriptorTask;
    FileDescriptorTask* owner_;
  };

  // Calls the owner's taskExecuteReadable(); the only sub-task that passes a statistics
  // reset on to the owner.
  class ReadTask : public ReadWriteTaskBase {
   public:
    using ReadWriteTaskBase::ReadWriteTaskBase;
    void taskExecute() override;
    void handleResetStats() override;
  };

  // Switches write watching off, then calls the owner's taskExecuteWritable().
  class WriteTask : public ReadWriteTaskBase {
   public:
    using ReadWriteTaskBase::ReadWriteTaskBase;
    void taskExecute() override;
  };

  // Watches reads (of no descriptor yet), not writes; no write task yet.
  FileDescriptorTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                     std::string name);
  // Takes a shared reference from the scheduler; std::bad_weak_ptr when it has none.
  FileDescriptorTask(TaskScheduler* scheduler, TaskPriority priority, std::string name);

  // Whether either sub-task is on a run queue.
  bool taskScheduled() const override;
  // The next four act on the sub-task whose hook is running: call them from inside
  // taskExecuteReadable() / taskExecuteWritable() only (elsewhere the process ends).
  bool taskShouldYield() const override;
  void taskWorkCountInc(unsigned long long n) override;
  void taskWorkPendingIs(unsigned n) override;
  // Stops watching; sub-tasks held elsewhere no longer reach this object.
  ~FileDescriptorTask() override;

  // The work of a readable (writable) descriptor, run from the read (write) task.
  virtual void taskExecuteReadable() = 0;
  virtual void taskExecuteWritable() = 0;
  // Readiness reports of the fd control: each makes the matching sub-task runnable. Public so
  // that a caller with its own readiness source can report it; see Failures above.
  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;

  // ---- Descriptor and watching ----

  // The watched descriptor, -1 when none.
  int taskWatchFd() const;
  // Watches `fd` for the directions switched on. The watched descriptor (or -1 when none is
  // watched) changes nothing. Another descriptor first unschedules both sub-tasks: readiness
  // of the old one means nothing any more. Throws AssertException (and changes nothing) when
  // another `fd` is negative or not open.
  void taskWatchFdIs(int fd);
  // Stops watching and forgets the descriptor; unschedules both sub-tasks.
  void taskWatchFdDel();
  bool taskWatchReadable() const noexcept { return taskWatchReadable_; }
  // Acts on change only; switching off unschedules the read task.
  void taskWatchReadableIs(bool on);
  bool taskWatchWritable() const noexcept { return taskWatchWritable_; }
  // Acts on change only; creates the write task if missing; switching off unschedules it.
  void taskWatchWritableIs(bool on);
  // Makes a sub-task runnable now, without readiness (the write task is created if missing).
  void scheduleTaskReadable();
  void scheduleTaskWritable();
  // Creates the write task if missing. It gets the read task's suspended flag and, unless
  // the read task yields on every call in test mode, its quantum; of the test yield ratio it
  // learns only whether that ratio is 1 (a ratio of 3 on the read task gives 0 here).
  void checkCreateWriteTask();

  // ---- Settings forwarded to both sub-tasks ----

  // The quantum, the suspension and the forced test yield of both sub-tasks.
  void taskQuantumIs(nanoseconds q);
  void taskSuspendedIs(bool suspended);
  void taskForceYieldInTestIs(bool on);
  // Sets the read task's ratio. With a write task present it then calls itself again with
  // the same ratio instead of setting the write task's, and so never returns: kept as it
  // stands, so set test yield ratios before the write task exists, or use
  // taskForceYieldInTestIs(), which reaches both sub-tasks.
  void taskTestYieldRatioIs(uint8_t ratio);
  // The read task's settings.
  nanoseconds taskQuantum() const;
  bool taskSuspended() const;
  uint8_t taskTestYieldRatio() const;
  bool taskForceYieldInTest() const;

  // ---- Status and work counts per direction ----

  // Whether the read task / the write task is scheduled.
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;
  // Totals, decaying averages ((9 * avg + n) / 10 after the first sample) and high-water
  // marks of the counts reported in each direction. The read side's mark is 4294967295 until
  // its first count; a count of 2^32 or more sets it to its low 32 bits (see
  // TaskImpl::taskWorkCountInc()). Without a write task the write side reads 0.
  uint64_t taskWorkCountReadableTotal() const;
  float taskWorkCountReadableDecayAvg() const;
  uint32_t taskWorkCountReadableHighWaterMark() const;
  void taskWorkCountReadableInc(uint64_t count);
  uint64_t taskWorkCountWritableTotal() const;
  float taskWorkCountWritableDecayAvg() const;
  uint32_t taskWorkCountWritableHighWaterMark() const;
  // Throws AssertException without a write task.
  void taskWorkCountWritableInc(uint64_t count);

  // The sub-tasks, for their statistics; the write task is null until first needed. Holding
  // one keeps it alive past the owner.
  const std::shared_ptr<ReadTask>& readTask() const noexcept { return readTask_; }
  const std::shared_ptr<WriteTask>& writeTask() const noexcept { return writeTask_; }

 private:
  void _taskExecuteReadable();
  void _taskExecuteWritable();

  bool taskWatchReadable_ = false;
  bool taskWatchWritable_ = false;
  std::shared_ptr<Platform::FdControl> fdControl_;
  std::shared_ptr<ReadTask> readTask_;
  std::shared_ptr<WriteTask> writeTask_;
  TaskImpl* executingTask_ = nullptr;
};

}  // namespace Tarvo
