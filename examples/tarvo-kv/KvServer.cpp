#include "KvServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace TarvoKv {

using Tarvo::TaskPriority;

namespace {

constexpr size_t kReadSize = 16 * 1024;

int64_t wallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::runtime_error systemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

// ---- Tasks ----

class KvServer::Listener : public Tarvo::FileDescriptorTask {
 public:
  Listener(std::shared_ptr<Tarvo::TaskScheduler> root, KvServer& server)
      : FileDescriptorTask(std::move(root), TaskPriority::high, "listener"), server_(server) {}
  void taskExecuteReadable() override { server_.acceptClients(); }
  void taskExecuteWritable() override {}

 private:
  KvServer& server_;
};

// One client: its parser, its unsent replies and the state of its stream.
class KvServer::Connection : public Tarvo::FileDescriptorTask {
 public:
  Connection(std::shared_ptr<Tarvo::TaskScheduler> group, KvServer& server, int fd)
      : FileDescriptorTask(std::move(group), TaskPriority::normal, "client"),
        server_(server),
        fd_(fd),
        parser_(server.config_.limits),
        lastActive_(std::chrono::steady_clock::now()) {}
  ~Connection() override { closeDescriptor(); }

  void taskExecuteReadable() override;
  void taskExecuteWritable() override {
    if (flush()) {
      afterFlush();
    }
  }

  // Stops reading; the replies owed are sent, then the connection closes.
  void finishAndClose() {
    closeAfterFlush_ = true;
    taskWatchReadableIs(false);
    if (pending() == 0) {
      server_.closeConnection(this);
    }
  }
  // Stops watching and closes the descriptor; the server drops its reference after.
  void closeDescriptor() {
    if (fd_ >= 0) {
      taskWatchFdDel();
      ::close(fd_);
      fd_ = -1;
    }
  }
  std::chrono::steady_clock::time_point lastActive() const noexcept { return lastActive_; }

 private:
  size_t pending() const noexcept { return out_.size() - outPos_; }
  bool runCommands();
  bool flush();
  void afterFlush();
  bool overOutputLimit();

  KvServer& server_;
  int fd_;
  RespParser parser_;
  std::vector<std::string> args_;
  std::string out_;
  size_t outPos_ = 0;
  bool closeAfterFlush_ = false;
  std::chrono::steady_clock::time_point lastActive_;
};

void KvServer::Connection::taskExecuteReadable() {
  static char buffer[kReadSize];  // one thread serves every client
  for (;;) {
    ssize_t n = ::read(fd_, buffer, sizeof(buffer));
    if (n > 0) {
      lastActive_ = std::chrono::steady_clock::now();
      parser_.feed(std::string_view(buffer, static_cast<size_t>(n)));
      if (!runCommands()) {
        return;
      }
      if (static_cast<size_t>(n) < sizeof(buffer) || closeAfterFlush_ || taskShouldYield()) {
        break;
      }
      continue;
    }
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      break;
    }
    // End of stream: the replies to what came before it go out as far as the socket takes
    // them at once. A reset: nothing can be delivered any more.
    if (n == 0 && !flush()) {
      return;
    }
    server_.closeConnection(this);
    return;
  }
  if (flush()) {
    afterFlush();
  }
}

// Runs the complete commands received; false when the connection was closed.
bool KvServer::Connection::runCommands() {
  if (closeAfterFlush_) {
    return true;
  }
  const int64_t now = wallClockMs();
  for (;;) {
    RespParser::Status status = parser_.next(&args_);
    if (status == RespParser::Status::needMore) {
      return true;
    }
    if (status == RespParser::Status::error) {
      ++server_.protocolErrors_;
      TARVO_TRACE(server_.trace_, 3, "client fd " << fd_ << ": " << parser_.error());
      appendError(&out_, "ERR " + parser_.error());
      finishAndClose();
      return true;
    }
    KvCommands::After after = server_.commands_.execute(args_, now, &out_);
    if (after == KvCommands::After::dropConnection) {
      TARVO_TRACE(server_.trace_, 1, "client fd " << fd_ << " sent HTTP, closing it");
      server_.closeConnection(this);
      return false;
    }
    if (after == KvCommands::After::closeAfterReply) {
      finishAndClose();
      return true;
    }
    if (overOutputLimit()) {
      return false;
    }
  }
}

// Closes a client whose unsent replies exceed the limit: one that asks and never reads.
bool KvServer::Connection::overOutputLimit() {
  if (pending() <= server_.config_.clientOutputLimit) {
    return false;
  }
  ++server_.clientsOverOutputLimit_;
  TARVO_TRACE(server_.trace_, 1,
              "client fd " << fd_ << " closed: " << pending() << " bytes of replies unsent");
  server_.closeConnection(this);
  return true;
}

// Writes what is owed; false when the connection was closed.
bool KvServer::Connection::flush() {
  while (pending() > 0) {
    ssize_t n = ::send(fd_, out_.data() + outPos_, pending(), MSG_NOSIGNAL);
    if (n > 0) {
      outPos_ += static_cast<size_t>(n);
      lastActive_ = std::chrono::steady_clock::now();
      continue;
    }
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      break;
    }
    server_.closeConnection(this);
    return false;
  }
  if (pending() == 0) {
    out_.clear();
    outPos_ = 0;
    return true;
  }
  if (overOutputLimit()) {
    return false;
  }
  if (outPos_ > out_.size() / 2) {
    out_.erase(0, outPos_);
    outPos_ = 0;
  }
  return true;
}

// Waits for the socket while replies remain; closes once they are out if that was asked for.
void KvServer::Connection::afterFlush() {
  if (pending() > 0) {
    taskWatchWritableIs(true);
  } else if (closeAfterFlush_) {
    server_.closeConnection(this);
  }
}

class KvServer::SignalWatch : public Tarvo::FileDescriptorTask {
 public:
  SignalWatch(std::shared_ptr<Tarvo::TaskScheduler> root, KvServer& server)
      : FileDescriptorTask(std::move(root), TaskPriority::high, "signals"), server_(server) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0) {
      throw systemError("signalfd");
    }
  }
  ~SignalWatch() override { stop(); }
  int fd() const noexcept { return fd_; }
  void stop() {
    if (fd_ >= 0) {
      taskWatchFdDel();
      ::close(fd_);
      fd_ = -1;
    }
  }
  void taskExecuteReadable() override {
    signalfd_siginfo info;
    while (::read(fd_, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
      TARVO_TRACE(server_.trace_, 1, "signal " << info.ssi_signo << ": shutting down");
      server_.shutdown();
      return;
    }
  }
  void taskExecuteWritable() override {}

 private:
  KvServer& server_;
  int fd_ = -1;
};

class KvServer::ExpiryTimer : public Tarvo::TimerTask {
 public:
  ExpiryTimer(std::shared_ptr<Tarvo::TaskScheduler> root, KvServer& server)
      : TimerTask(std::move(root), TaskPriority::normal, "expiry"), server_(server) {
    taskQuantumIs(std::chrono::milliseconds(1));
  }
  void taskExecute() override {
    KvStore& store = server_.store_;
    // A tenth of the table per run: every key is looked at about once a second.
    size_t budget = std::max<size_t>(1024, store.size() / 10);
    size_t removed = 0;
    const int64_t now = wallClockMs();
    while (budget > 0 && store.volatileCount() > 0) {
      size_t slice = std::min<size_t>(budget, 256);
      removed += store.expireSome(now, slice);
      budget -= slice;
      if (taskShouldYield()) {
        break;
      }
    }
    taskWorkCountInc(removed);
    if (budget > 0 && store.volatileCount() > 0) {
      scheduleTask();  // yielded with work left: go on after the others had their turn
    } else {
      scheduleTaskJitterUp(std::chrono::milliseconds(100), 20);
    }
  }

 private:
  KvServer& server_;
};

class KvServer::IdleTimer : public Tarvo::TimerTask {
 public:
  IdleTimer(std::shared_ptr<Tarvo::TaskScheduler> root, KvServer& server)
      : TimerTask(std::move(root), TaskPriority::normal, "idle-clients"), server_(server) {}
  void taskExecute() override {
    using namespace std::chrono;
    const auto now = steady_clock::now();
    // At shutdown, clients get a few seconds to take their replies.
    const auto limit = server_.shuttingDown_ ? seconds(3) : server_.config_.idleTimeout;
    std::vector<Connection*> silent;
    for (const auto& [connection, owner] : server_.connections_) {
      if (limit.count() > 0 && now - connection->lastActive() > limit) {
        silent.push_back(connection);
      }
    }
    for (Connection* connection : silent) {
      TARVO_TRACE(server_.trace_, 5, "closing an idle client");
      server_.closeConnection(connection);
    }
    if (!server_.shuttingDown_ || !server_.connections_.empty()) {
      scheduleTaskJitterUp(seconds(1), 10);
    }
  }

 private:
  KvServer& server_;
};

class KvServer::RetryTimer : public Tarvo::TimerTask {
 public:
  RetryTimer(std::shared_ptr<Tarvo::TaskScheduler> root, KvServer& server)
      : TimerTask(std::move(root), TaskPriority::high, "accept-retry"), server_(server) {}
  void taskExecute() override {
    if (server_.listener_) {
      server_.listener_->taskWatchReadableIs(true);
    }
  }

 private:
  KvServer& server_;
};

// ---- The server ----

KvServer::KvServer(std::shared_ptr<Tarvo::TaskSchedulerRoot> root, ServerConfig config)
    : root_(std::move(root)),
      config_(std::move(config)),
      trace_(Tarvo::Platform::getDebugHandler("TarvoKv")),
      commands_(store_,
                [this](const std::string& section, std::string* out) { writeInfo(section, out); }),
      started_(std::chrono::steady_clock::now()) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(config_.port);
  if (inet_pton(AF_INET, config_.bindAddress.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("not an IPv4 address: " + config_.bindAddress);
  }
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) {
    throw systemError("socket");
  }
  int one = 1;
  setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listenFd_, 511) != 0) {
    std::runtime_error error =
        systemError("listen on " + config_.bindAddress + ":" + std::to_string(config_.port));
    ::close(listenFd_);
    throw error;
  }
  socklen_t length = sizeof(address);
  getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);

  connectionGroup_ = Tarvo::TaskGroupIs("connections", TaskPriority::normal, false, root_);
  listener_ = std::make_shared<Listener>(root_, *this);
  listener_->taskWatchFdIs(listenFd_);
  signals_ = std::make_shared<SignalWatch>(root_, *this);
  signals_->taskWatchFdIs(signals_->fd());
  expiry_ = std::make_shared<ExpiryTimer>(root_, *this);
  expiry_->scheduleTaskJitterUp(std::chrono::milliseconds(100), 20);
  idle_ = std::make_shared<IdleTimer>(root_, *this);
  idle_->scheduleTaskJitterUp(std::chrono::seconds(1), 10);
  acceptRetry_ = std::make_shared<RetryTimer>(root_, *this);
  TARVO_TRACE(trace_, 1, "listening on " << config_.bindAddress << ":" << port_);
}

KvServer::~KvServer() {
  connections_.clear();
  if (listener_) {
    listener_->taskWatchFdDel();
  }
  if (listenFd_ >= 0) {
    ::close(listenFd_);
  }
  Tarvo::Platform::destroyDebugHandler(trace_);
}

void KvServer::acceptClients() {
  // A bounded batch per run; the listening socket stays readable while more wait.
  for (int i = 0; i < 64; ++i) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) {
        continue;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return;
      }
      // Out of descriptors or memory: the waiting clients stay queued in the kernel.
      ++acceptFailures_;
      TARVO_TRACE(trace_, 1, "accept failed: " << std::strerror(errno) << "; retrying in 100 ms");
      listener_->taskWatchReadableIs(false);
      acceptRetry_->scheduleTaskDelay(std::chrono::milliseconds(100));
      return;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    auto connection = std::make_shared<Connection>(connectionGroup_, *this, fd);
    connection->taskWatchFdIs(fd);
    connections_.emplace(connection.get(), connection);
    ++connectionsAccepted_;
    TARVO_TRACE(trace_, 5, "client fd " << fd << " connected");
  }
}

void KvServer::closeConnection(Connection* connection) {
  auto it = connections_.find(connection);
  if (it == connections_.end()) {
    return;
  }
  connection->closeDescriptor();
  // Inside the connection's own hook the task keeps itself alive until the hook returns.
  connections_.erase(it);
}

void KvServer::shutdown() {
  if (shuttingDown_) {
    return;
  }
  shuttingDown_ = true;
  if (listener_) {
    listener_->taskWatchFdDel();
    ::close(listenFd_);
    listenFd_ = -1;
  }
  signals_->stop();
  expiry_->stopTimerTask();
  acceptRetry_->stopTimerTask();
  std::vector<Connection*> open;
  for (const auto& [connection, owner] : connections_) {
    open.push_back(connection);
  }
  for (Connection* connection : open) {
    connection->finishAndClose();
  }
  if (connections_.empty()) {
    idle_->stopTimerTask();
  }
}

void KvServer::writeInfo(const std::string& section, std::string* out) const {
  const bool all =
      section.empty() || section == "all" || section == "default" || section == "everything";
  auto wanted = [&](const char* name) { return all || section == name; };
  auto line = [out](const char* key, const auto& value) {
    std::ostringstream text;
    text << key << ':' << value << "\r\n";
    *out += text.str();
  };
  auto separate = [out] {
    if (!out->empty()) {
      *out += "\r\n";
    }
  };
  if (wanted("server")) {
    separate();
    *out += "# Server\r\n";
    line("tarvo_kv_version", "0.1.0");
    line("multiplexing_api", "libTarvo");
    line("process_id", ::getpid());
    line("tcp_port", port_);
    line("uptime_in_seconds", std::chrono::duration_cast<std::chrono::seconds>(
                                  std::chrono::steady_clock::now() - started_)
                                  .count());
  }
  if (wanted("clients")) {
    separate();
    *out += "# Clients\r\n";
    line("connected_clients", connections_.size());
  }
  if (wanted("stats")) {
    separate();
    *out += "# Stats\r\n";
    line("total_connections_received", connectionsAccepted_);
    line("total_commands_processed", commands_.commandsProcessed());
    line("expired_keys", store_.expiredCount());
    line("accept_failures", acceptFailures_);
    line("client_output_limit_disconnections", clientsOverOutputLimit_);
    line("protocol_errors", protocolErrors_);
  }
  if (wanted("scheduler")) {
    // The root's statistics report, one "\r\n"-ended line per report line.
    separate();
    *out += "# Scheduler\r\n";
    std::ostringstream report;
    root_->printStats(report, false, false, 50, 20, 0);
    std::string text = report.str();
    while (!text.empty() && text.back() == '\n') {
      text.pop_back();
    }
    size_t start = 0;
    while (start <= text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) {
        end = text.size();
      }
      out->append(text, start, end - start);
      *out += "\r\n";
      start = end + 1;
    }
  }
  if (section == "scheduler_json" || section == "everything") {
    // The same figures as one JSON document on one line, for monitoring that parses. The
    // writer's newlines only separate records; strings carry theirs escaped.
    separate();
    *out += "# Scheduler_json\r\n";
    std::ostringstream json;
    root_->writeStatsJson(json, false, true);
    std::string text = json.str();
    std::erase(text, '\n');
    line("scheduler_stats", text);
  }
}

}  // namespace TarvoKv
