// Descriptor helpers for the descriptor-task suites: a connected socket pair and a
// FileDescriptorTask whose hooks are functions.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace Tarvo::Test {

// A connected Unix stream pair; both ends closed on exit (declare it before the tasks that
// watch it, so that they go first).
struct SocketPair {
  int fd[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~SocketPair() { ::close(fd[0]), ::close(fd[1]); }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;
  // Writes `bytes` into the far end, making fd[0] readable.
  void put(const std::string& bytes = "x") const {
    EXPECT_EQ(::write(fd[1], bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }
};

// Reads whatever `fd` holds now (non-blocking descriptors only).
inline std::string drain(int fd) {
  std::string got;
  char buf[256];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0) {
    got.append(buf, size_t(n));
  }
  return got;
}

class FnFdTask : public FileDescriptorTask {
 public:
  using Hook = std::function<void(FnFdTask&)>;
  FnFdTask(std::shared_ptr<TaskScheduler> scheduler, const std::string& name, Hook onRead = {},
           Hook onWrite = {})
      : FileDescriptorTask(std::move(scheduler), TaskPriority::normal, name),
        onRead(std::move(onRead)),
        onWrite(std::move(onWrite)) {}
  void taskExecuteReadable() override {
    ++reads;
    if (onRead) {
      onRead(*this);
    }
  }
  void taskExecuteWritable() override {
    ++writes;
    if (onWrite) {
      onWrite(*this);
    }
  }
  int reads = 0, writes = 0;
  Hook onRead, onWrite;
};

// One pass of the thread's event loop: delivers what is ready now and returns.
inline void pumpLoop() {
  Platform::doEventLoop(0.0);
}

}  // namespace Tarvo::Test
