// Helpers of the file, /proc and lock tests: a trace handler that records its lines, a
// descriptor count for leak checks, and a forked child that stays alive while it is looked at.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
    return std::ranges::any_of(lines_, [&](const auto& line) {
      return line.first == level && line.second.find(text) != std::string::npos;
    });
  }

  std::vector<std::pair<unsigned, std::string>> lines_;
};

// The message of the exception of type E (AssertException by default) that `body` throws,
// or "no exception".
template <typename E = AssertException>
std::string thrownMessage(const std::function<void()>& body) {
  try {
    body();
  } catch (const E& e) {
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

// A forked child that runs `setup` (takes a lock, opens a file), reports its result and then
// stays as it is until release() or destruction kill it, or this process ends.
class WaitingChild {
 public:
  explicit WaitingChild(const std::function<bool()>& setup) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || (pid_ = ::fork()) < 0) {
      return;
    }
    char ok = 'n';
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // even through an exec, should the test crash
      ok = setup() ? 'y' : 'n';
      while (::write(ready[1], &ok, 1) == 1) {
        ::pause();
      }
      ::_exit(1);
    }
    ::close(ready[1]);
    setupOk_ = ::read(ready[0], &ok, 1) == 1 && ok == 'y';
    ::close(ready[0]);
  }
  ~WaitingChild() { release(); }
  void release() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }
  pid_t pid() const { return pid_; }
  bool setupOk() const { return setupOk_; }

 private:
  pid_t pid_ = -1;
  bool setupOk_ = false;
};

}  // namespace Tarvo::Test
