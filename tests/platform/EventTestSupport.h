// Handlers and descriptors shared by the event-layer suites.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"

namespace Tarvo::Test {

// Both ends of a pipe or socket pair, closed on destruction.
struct FdPair {
  int fds[2] = {-1, -1};
  static FdPair pipe() {
    FdPair p;
    if (::pipe(p.fds) != 0) {
      throw std::runtime_error("pipe failed");
    }
    return p;
  }
  static FdPair socketPair() {
    FdPair p;
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, p.fds) != 0) {
      throw std::runtime_error("socketpair failed");
    }
    return p;
  }
  FdPair() = default;
  FdPair(FdPair&& other) noexcept : fds{other.fds[0], other.fds[1]} {
    other.fds[0] = other.fds[1] = -1;
  }
  ~FdPair() {
    for (int fd : fds) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
  }
  int in() const { return fds[0]; }
  int out() const { return fds[1]; }
  void put(const char* text = "x") const {
    if (::write(fds[1], text, 1) != 1) {
      throw std::runtime_error("write failed");
    }
  }
};

// Counts notifications and runs an optional action on each; handle*Exception answers
// `swallow` and counts its calls.
struct FdRecorder : Platform::FdEventHandler {
  int reads = 0;
  int writes = 0;
  int exceptions = 0;
  bool swallow = false;
  std::function<void(int)> onRead;
  std::function<void(int)> onWrite;
  void readFdEvent(int fd) override {
    ++reads;
    if (onRead) {
      onRead(fd);
    }
  }
  void writeFdEvent(int fd) override {
    ++writes;
    if (onWrite) {
      onWrite(fd);
    }
  }
  bool handleFdException(int) override {
    ++exceptions;
    return swallow;
  }
};

struct TimerRecorder : Platform::TimeoutHandler {
  int fired = 0;
  int exceptions = 0;
  bool swallow = false;
  std::function<void()> onTimeout;
  void timeout() override {
    ++fired;
    if (onTimeout) {
      onTimeout();
    }
  }
  bool handleTimeoutException() override {
    ++exceptions;
    return swallow;
  }
};

struct CallbackRecorder : Platform::CallbackHandler {
  int calls = 0;
  int exceptions = 0;
  bool swallow = false;
  std::function<void()> onCallback;
  void callback() override {
    ++calls;
    if (onCallback) {
      onCallback();
    }
  }
  bool handleCallbackException() override {
    ++exceptions;
    return swallow;
  }
};

// An exception type of the tests' own, so that identity can be checked.
struct Boom : std::runtime_error {
  Boom() : std::runtime_error("boom") {}
};

// Fast-forward on for a scope (main thread only).
struct FastForwardOn {
  FastForwardOn() { Platform::setFastForward(true); }
  ~FastForwardOn() { Platform::setFastForward(false); }
  FastForwardOn(const FastForwardOn&) = delete;
  FastForwardOn& operator=(const FastForwardOn&) = delete;
};

}  // namespace Tarvo::Test
