// Helpers of the file, /proc and lock tests: a trace handler that records its lines, a
// descriptor count for leak checks, and a forked child that stays alive while it is looked at.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "common/TestSupport.h"

namespace Tarvo::Test {

// Keeps every line traced on it, with its level.
class TraceRecorder : public Platform::DebugHandler {
 public:
  explicit TraceRecorder(uint32_t levels = kAllLevels)
      : DebugHandler("TraceRecorder", levels, false) {}
  void enabledIs(unsigned level, bool on) override {
    on ? levels_.fetch_or(1u << level) : levels_.fetch_and(~(1u << level));
  }
  void dump(Platform::DebugStream& stream, unsigned level, const char*, int, const char*) override {
    lines_.emplace_back(level, stream.str());
  }
  // Whether a line traced at `level` contains `text`.
  bool has(unsigned level, const std::string& text) const {
    for (const auto& [lineLevel, line] : lines_) {
      if (lineLevel == level && line.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }
  bool empty() const { return lines_.empty(); }
  void clear() { lines_.clear(); }

 private:
  std::vector<std::pair<unsigned, std::string>> lines_;
};

// The message of the AssertException that `body` throws, or "no exception".
inline std::string assertMessage(const std::function<void()>& body) {
  try {
    body();
  } catch (const AssertException& e) {
    return e.message();
  }
  return "no exception";
}

// Open descriptors, counted once the unwinder has set itself up: the first backtrace of a
// process opens a pipe that the unwinder keeps, which is no leak of the code under test.
inline int settledFdCount() {
  Backtrace warmUp(true);
  return openFdCount();
}

// A forked child that runs `setup` (takes a lock, binds a socket), reports its result and
// then stays as it is until release() or destruction.
class WaitingChild {
 public:
  explicit WaitingChild(const std::function<bool()>& setup) {
    int ready[2];
    int hold[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(hold, O_CLOEXEC) != 0 || (pid_ = ::fork()) < 0) {
      return;
    }
    if (pid_ == 0) {
      char ok = setup() ? 'y' : 'n';
      ::close(hold[1]);
      if (::write(ready[1], &ok, 1) == 1 && ::read(hold[0], &ok, 1) >= 0) {
        ::_exit(0);  // the parent let go
      }
      ::_exit(1);
    }
    ::close(ready[1]);
    ::close(hold[0]);
    char ok = 'n';
    setupOk_ = ::read(ready[0], &ok, 1) == 1 && ok == 'y';
    ::close(ready[0]);
    holdFd_ = hold[1];
  }
  ~WaitingChild() { release(); }

  // Lets the child exit and reaps it.
  void release() {
    if (holdFd_ >= 0) {
      ::close(holdFd_);
      ::waitpid(pid_, nullptr, 0);
      holdFd_ = -1;
    }
  }
  pid_t pid() const { return pid_; }
  bool setupOk() const { return setupOk_; }

 private:
  pid_t pid_ = -1;
  int holdFd_ = -1;
  bool setupOk_ = false;
};

}  // namespace Tarvo::Test
