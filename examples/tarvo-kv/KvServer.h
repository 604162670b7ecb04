// The tarvo-kv server: a RESP2 key-value server made of libTarvo tasks on one thread.
//
//   listener     FileDescriptorTask, high priority: accepts clients. When the process runs
//                out of descriptors it traces the failure, stops watching for a moment and
//                tries again ("accept-retry" timer task); the server goes on.
//   connections  a TaskGroup at normal priority holding one FileDescriptorTask per client,
//                so that the clients share one turn of the root scheduler and a busy client
//                cannot starve the listener or the timers. Each reads what is there, runs
//                every complete command (pipelining), and writes all the replies with one
//                write; write readiness is watched only when the socket's buffer is full.
//   expiry       TimerTask: removes expired keys a slice at a time, re-armed every 100 ms
//                with jitter (keys are also removed when a command meets them).
//   idle         TimerTask: once a second, closes clients silent for longer than the idle
//                timeout.
//   signals      FileDescriptorTask on a signalfd: SIGINT or SIGTERM close the listener,
//                flush pending replies, close the clients, and let the event loop end.
//
// A client whose unsent replies exceed the output limit is closed (a client that sends and
// never reads would otherwise grow the server without bound); the limit also caps the size of
// a value that can be read back. A protocol error answers the commands before it, then
// "-ERR Protocol error: ...", then closes that client only.
//
// There is no authentication: whoever reaches the port may read and change every key. The
// server binds 127.0.0.1 unless told otherwise.
//
// Threads: the server and all its tasks belong to the thread whose root scheduler it is
// given, and run from that thread's event loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "KvCommands.h"
#include "KvStore.h"
#include "RespParser.h"
#include "Tarvo/Debug.h"
#include "Tarvo/TaskScheduler.h"

namespace TarvoKv {

struct ServerConfig {
  std::string bindAddress = "127.0.0.1";
  uint16_t port = 6390;                           // 0: any free port (see KvServer::port())
  std::chrono::seconds idleTimeout{300};          // 0: never
  size_t clientOutputLimit = 256u * 1024 * 1024;  // unsent reply bytes per client
  RespLimits limits;
};

class KvServer {
 public:
  // Binds and listens at once; throws std::runtime_error when it cannot.
  KvServer(std::shared_ptr<Tarvo::TaskSchedulerRoot> root, ServerConfig config);
  ~KvServer();
  KvServer(const KvServer&) = delete;
  KvServer& operator=(const KvServer&) = delete;

  // The port listened on.
  uint16_t port() const noexcept { return port_; }
  // Stops accepting, flushes what is owed to each client and closes it; the tasks end, and
  // with them the event loop's work. Also what SIGINT and SIGTERM do.
  void shutdown();
  bool shuttingDown() const noexcept { return shuttingDown_; }
  size_t connectionCount() const noexcept { return connections_.size(); }

 private:
  class Listener;
  class Connection;
  class SignalWatch;
  class ExpiryTimer;
  class IdleTimer;
  class RetryTimer;
  friend class Connection;

  void acceptClients();
  void closeConnection(Connection* connection);
  void writeInfo(const std::string& section, std::string* out) const;

  std::shared_ptr<Tarvo::TaskSchedulerRoot> root_;
  ServerConfig config_;
  Tarvo::Platform::DebugHandler* trace_;
  KvStore store_;
  KvCommands commands_;
  int listenFd_ = -1;
  uint16_t port_ = 0;
  std::shared_ptr<Tarvo::TaskGroup> connectionGroup_;
  std::shared_ptr<Listener> listener_;
  std::shared_ptr<SignalWatch> signals_;
  std::shared_ptr<ExpiryTimer> expiry_;
  std::shared_ptr<IdleTimer> idle_;
  std::shared_ptr<RetryTimer> acceptRetry_;
  std::unordered_map<Connection*, std::shared_ptr<Connection>> connections_;
  bool shuttingDown_ = false;
  std::chrono::steady_clock::time_point started_;
  uint64_t connectionsAccepted_ = 0;
  uint64_t acceptFailures_ = 0;
  uint64_t clientsOverOutputLimit_ = 0;
  uint64_t protocolErrors_ = 0;
};

}  // namespace TarvoKv
