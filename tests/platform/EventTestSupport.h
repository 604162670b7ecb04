// Handlers and descriptors shared by the event-layer suites.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>

#include "Tarvo/Platform.h"

namespace Tarvo::Test {

// Both ends of a socket pair (readable after put(), writable at once), closed on destruction.
struct Sockets {
  int fds[2] = {-1, -1};
  Sockets() {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
      throw std::runtime_error("socketpair failed");
    }
  }
  ~Sockets() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  int in() const { return fds[0]; }
  void put() const { (void)::write(fds[1], "x", 1); }
};

// Implements all three handler interfaces: counts notifications and exception calls, runs
// `action` on each notification, and answers the exception calls with `swallow`.
struct Recorder : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
  int reads = 0;
  int writes = 0;
  int timeouts = 0;
  int callbacks = 0;
  int exceptions = 0;
  int lastFd = -1;
  bool swallow = false;
  std::function<void()> action;

  void readFdEvent(int fd) override { note(reads, fd); }
  void writeFdEvent(int fd) override { note(writes, fd); }
  void timeout() override { note(timeouts, -1); }
  void callback() override { note(callbacks, -1); }
  bool handleFdException(int) override { return ++exceptions, swallow; }
  bool handleTimeoutException() override { return ++exceptions, swallow; }
  bool handleCallbackException() override { return ++exceptions, swallow; }

 private:
  void note(int& count, int fd) {
    ++count;
    lastFd = fd;
    if (action) {
      action();
    }
  }
};

struct Boom : std::runtime_error {
  Boom() : std::runtime_error("boom") {}
};

}  // namespace Tarvo::Test
