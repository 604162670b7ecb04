// tarvo-demo: a small agent built on libTarvo. Copy it to start your own.
//
// The main thread's root scheduler runs three tasks and a task group:
//   - "crunch"  (low):    a long job (summing 1..N) that works in slices: it checks
//                         taskShouldYield() and schedules itself again until it is done;
//   - "ticker"  (normal): a short task that reschedules itself a fixed number of times;
//   - "warden"  (high):   woken every 2 ms by a platform timer; it suspends "crunch" on one
//                         wake and resumes it on the next;
//   - "conns"   (normal): a task group of four "conn" tasks. The root sees one task,
//                         "conns;TaskGroup"; each of its turns runs the connections back to
//                         back within a 1 ms budget.
// Beside them a socket pair carries a stream of text lines: "feeder" (a FileDescriptorTask
// watching one end for writability) writes a slice per readiness, and "lines" (watching the
// other end for readability) reads with the usual non-blocking loop until EOF. Each direction
// is its own task ("feeder:write", "lines:read") with its own work counts (bytes).
// A second thread has its own root and loop and runs its own task, "echo".
// At the end two connections close, and the demo prints the main thread's statistics report:
// per-priority counts, the live tasks (the group's included), the closed connections as dead
// records, and the last scheduling events.
//
// Try it with the trace facility:
//   TRACE='TarvoDemo/*' ./tarvo-demo                     every level of the demo's trace
//   TRACE='TaskScheduler/8' ./tarvo-demo                 the scheduler's view of each run
//   TRACEFORMAT=time,level,func-name ./tarvo-demo        another line prefix
//   TRACEFILE=/tmp/demo.trace ./tarvo-demo               trace lines into a file
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

using namespace std::chrono_literals;
using Tarvo::TaskPriority;

namespace {

// The demo's own trace handler; levels 0 and 1 are on by default for names starting "Tarvo".
Tarvo::Platform::DebugHandler& trace() {
  static Tarvo::Platform::DebugHandler* handler = Tarvo::Platform::getDebugHandler("TarvoDemo");
  return *handler;
}

// A long job done in slices: each run works until the scheduler says to yield, then goes
// back to the end of its queue so that other tasks get their turn.
class Crunch : public Tarvo::Task {
 public:
  Crunch(std::shared_ptr<Tarvo::TaskScheduler> root, uint64_t n)
      : Task(std::move(root), TaskPriority::low, "crunch"), n_(n) {
    taskQuantumIs(200us);  // a short quantum, so that the demo shows many slices
  }
  void taskExecute() override {
    uint64_t done = 0;
    while (next_ <= n_ && !(done % 1024 == 0 && taskShouldYield())) {
      sum_ += next_++;
      ++done;
    }
    taskWorkCountInc(done);
    if (next_ <= n_) {
      scheduleTask();
    } else {
      TARVO_TRACE(trace(), 1, "crunch done: sum " << sum_);
    }
  }
  bool finished() const { return next_ > n_; }
  uint64_t sum() const { return sum_; }

 private:
  uint64_t n_;
  uint64_t next_ = 1;
  uint64_t sum_ = 0;
};

// A task that runs `times` times, rescheduling itself after each run.
class Repeater : public Tarvo::Task {
 public:
  Repeater(std::shared_ptr<Tarvo::TaskScheduler> root, TaskPriority priority, const char* name,
           int times)
      : Task(std::move(root), priority, name), left_(times) {}
  void taskExecute() override {
    TARVO_TRACE(trace(), 5, taskName() << " run, " << left_ - 1 << " to go");
    if (--left_ > 0) {
      scheduleTask();
    }
  }

 private:
  int left_;
};

// Woken by a platform timer; alternately suspends and resumes the crunch task. A suspended
// task keeps its place in no queue and runs again only once resumed.
class Warden : public Tarvo::Task, public Tarvo::Platform::TimeoutHandler {
 public:
  Warden(std::shared_ptr<Tarvo::TaskScheduler> root, Crunch& crunch)
      : Task(std::move(root), TaskPriority::high, "warden"), crunch_(crunch) {}
  void start() { timer_->setTimeout(0.002); }
  void timeout() override { scheduleTask(); }  // the timer makes the task runnable
  void taskExecute() override {
    if (crunch_.finished()) {
      return;  // nothing left to watch: the timer is not re-armed and the loop can end
    }
    crunch_.taskSuspendedIs(!crunch_.taskSuspended());
    TARVO_TRACE(trace(), 3, (crunch_.taskSuspended() ? "suspended" : "resumed") << " crunch");
    timer_->setTimeout(0.002);
  }

 private:
  Crunch& crunch_;
  std::shared_ptr<Tarvo::Platform::TimerControl> timer_ = Tarvo::Platform::getTimerControl(this);
};

// Writes `total` bytes of numbered text lines into its descriptor, at most one 4 KiB slice
// per write readiness. Write watching is one-shot, so it re-arms while data is left, and shuts
// its sending side down when done, which the reader sees as EOF.
class Feeder : public Tarvo::FileDescriptorTask {
 public:
  Feeder(std::shared_ptr<Tarvo::TaskScheduler> root, int fd, size_t total)
      : FileDescriptorTask(std::move(root), TaskPriority::normal, "feeder") {
    for (int i = 0; data_.size() < total; ++i) {
      data_ += "line " + std::to_string(i) + "\n";
    }
    taskWatchReadableIs(false);  // this end only writes
    taskWatchFdIs(fd);
    taskWatchWritableIs(true);
  }
  void taskExecuteReadable() override {}
  void taskExecuteWritable() override {
    const size_t slice = std::min<size_t>(4096, data_.size() - sent_);
    ssize_t n = ::write(taskWatchFd(), data_.data() + sent_, slice);
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "feeder write");
    }
    if (n > 0) {
      sent_ += size_t(n);
      taskWorkCountInc(uint64_t(n));
    }
    if (sent_ < data_.size()) {
      taskWatchWritableIs(true);
    } else {
      ::shutdown(taskWatchFd(), SHUT_WR);
      taskWatchFdDel();
    }
  }

 private:
  std::string data_;
  size_t sent_ = 0;
};

// Counts the lines arriving on its descriptor: reads until the descriptor is drained (EAGAIN:
// wait for the next readiness) or the quantum is used up (yield: still readable, so the read
// task runs again), and stops watching at EOF.
class LineCounter : public Tarvo::FileDescriptorTask {
 public:
  LineCounter(std::shared_ptr<Tarvo::TaskScheduler> root, int fd)
      : FileDescriptorTask(std::move(root), TaskPriority::normal, "lines") {
    taskWatchFdIs(fd);
  }
  void taskExecuteReadable() override {
    char buf[1024];
    uint64_t bytes = 0;
    for (;;) {
      ssize_t n = ::read(taskWatchFd(), buf, sizeof buf);
      if (n > 0) {
        bytes += uint64_t(n);
        lines_ += std::count(buf, buf + n, '\n');
        if (taskShouldYield()) {
          break;
        }
      } else if (n == 0) {
        eof_ = true;
        taskWatchFdDel();
        break;
      } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
        break;
      } else if (errno != EINTR) {
        throw std::system_error(errno, std::generic_category(), "lines read");
      }
    }
    bytesTotal_ += bytes;
    taskWorkCountInc(bytes);
  }
  void taskExecuteWritable() override {}
  long lines() const { return lines_; }
  uint64_t bytes() const { return bytesTotal_; }
  bool eof() const { return eof_; }

 private:
  long lines_ = 0;
  uint64_t bytesTotal_ = 0;
  bool eof_ = false;
};

}  // namespace

int main() {
  std::cout << "libTarvo demo: one agent, two threads, each with its own scheduler root.\n";

  // A second thread: its own root (named after the thread), its own loop, its own task.
  unsigned echoRuns = 0;
  std::string echoRoot;
  std::thread worker([&] {
    std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvo();
    auto echo = std::make_shared<Repeater>(root, TaskPriority::normal, "echo", 1000);
    echo->scheduleTask();
    Tarvo::Platform::doEventLoop();  // returns when nothing is left to run or wait for
    echoRuns = echo->taskRunCount();
    echoRoot = root->schedulerName().str();
  });

  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvo();
  root->historyEntryCountIs(4000);  // room for the whole run in the timeline written below
  auto crunch = std::make_shared<Crunch>(root, 20'000'000);
  auto ticker = std::make_shared<Repeater>(root, TaskPriority::normal, "ticker", 50);
  auto warden = std::make_shared<Warden>(root, *crunch);
  // A subsystem bounded as a whole: one priority and one time budget per turn for all of it.
  auto conns = Tarvo::TaskGroupIs("conns", TaskPriority::normal, true, root);
  conns->taskGroupQuantumIs(1ms);
  std::vector<std::shared_ptr<Repeater>> connections;
  for (int i = 0; i < 4; ++i) {
    connections.push_back(std::make_shared<Repeater>(conns, TaskPriority::normal, "conn", 500));
    connections.back()->scheduleTask();
  }
  crunch->scheduleTask();
  ticker->scheduleTask();
  warden->start();
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  auto feeder = std::make_shared<Feeder>(root, pair[0], 256 * 1024);
  auto lines = std::make_shared<LineCounter>(root, pair[1]);

  const auto started = std::chrono::steady_clock::now();
  Tarvo::Platform::doEventLoop(10.0);  // bounded: at most ten seconds
  const auto elapsed = std::chrono::steady_clock::now() - started;
  worker.join();

  std::cout << "\nMain thread root " << root->schedulerName() << ": crunch summed 1.." << 20'000'000
            << " = " << crunch->sum() << " in " << crunch->taskRunCount() << " slices over "
            << std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()
            << " ms, interleaved with the other tasks.\n"
            << "Socket pair: \"lines\" counted " << lines->lines() << " lines (" << lines->bytes()
            << " bytes" << (lines->eof() ? ", then EOF" : ", no EOF yet") << ") in "
            << lines->readTask()->taskRunCount() << " read runs; \"feeder\" wrote them in "
            << feeder->writeTask()->taskRunCount() << " write runs.\n"
            << "Worker thread root " << echoRoot << ": echo ran " << echoRuns << " times.\n";

  connections.resize(2);  // two connections close: their figures move to the dead records
  ::close(pair[0]);
  ::close(pair[1]);
  std::cout << "\nStatistics report of the main thread's scheduler tree:\n\n";
  root->printStats(std::cout, true, false, 20, 20, 12);

  // The history as a timeline: one track per scheduler, one bar per task run.
  std::ofstream timeline("tarvo-demo.trace.json");
  root->writeTraceEvents(timeline);
  timeline.close();
  std::cout << "\nTimeline of the main thread's last " << root->history()->size()
            << " scheduling events written to tarvo-demo.trace.json: open it in\n"
               "https://ui.perfetto.dev (Open trace file) or chrome://tracing (Load).\n";
  return crunch->finished() && lines->eof() ? 0 : 1;
}
