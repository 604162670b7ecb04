// A forked child that prepares something (holds a lock, opens a socket), tells the test it
// is ready and then stays alive, unchanged, until the test lets it go.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace Tarvo::Test {

class WaitingChild {
 public:
  // Forks; the child runs `setup` and reports its result. Returns once the child is ready.
  explicit WaitingChild(const std::function<bool()>& setup) {
    int ready[2];
    int hold[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(hold, O_CLOEXEC) != 0) {
      return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      ::close(hold[1]);
      char ok = setup() ? 'y' : 'n';
      ssize_t ignored = ::write(ready[1], &ok, 1);
      // Blocks until the parent closes its end.
      ignored = ::read(hold[0], &ok, 1);
      (void)ignored;
      ::_exit(0);
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
      holdFd_ = -1;
    }
    if (pid_ > 0) {
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

  WaitingChild(const WaitingChild&) = delete;
  WaitingChild& operator=(const WaitingChild&) = delete;

  pid_t pid() const { return pid_; }
  bool setupOk() const { return setupOk_; }

 private:
  pid_t pid_ = -1;
  int holdFd_ = -1;
  bool setupOk_ = false;
};

}  // namespace Tarvo::Test
