// tarvo-kv: an in-memory key-value server speaking the Redis protocol (RESP2), built on
// libTarvo: one process, one thread, one event loop. See KvServer.h for how it is made and
// README.md ("A real agent") for how to run it.
//
//   tarvo-kv [--port N] [--bind ADDRESS] [--idle-timeout SECONDS] [--output-limit BYTES]
//
// It has no authentication: it listens on 127.0.0.1 unless --bind says otherwise.
#include <signal.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include "KvServer.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace {

const char kUsage[] =
    "usage: tarvo-kv [--port N] [--bind ADDRESS] [--idle-timeout SECONDS] [--output-limit "
    "BYTES]\n"
    "\n"
    "An in-memory key-value server speaking the Redis protocol (RESP2) on one thread.\n"
    "It has NO authentication: anyone who reaches the port can read and change every key.\n"
    "\n"
    "  --port N               TCP port to listen on (default 6390; 0 picks a free one)\n"
    "  --bind ADDRESS         IPv4 address to listen on (default 127.0.0.1)\n"
    "  --idle-timeout SECONDS close clients silent this long (default 300, 0 = never)\n"
    "  --output-limit BYTES   close a client with more unsent replies (default 268435456)\n"
    "  --help                 this text\n"
    "\n"
    "SIGINT or SIGTERM: stop accepting, send the replies owed, close, exit 0.\n"
    "Trace: TRACE='TarvoKv/*' for every client event.\n";

bool parseNumber(const char* text, unsigned long long max, unsigned long long* value) {
  char* end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v > max || text[0] == '-') {
    return false;
  }
  *value = v;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  TarvoKv::ServerConfig config;
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::cout << kUsage;
      return 0;
    }
    if (i + 1 >= argc) {
      std::cerr << "tarvo-kv: unknown option or missing value: " << option << "\n" << kUsage;
      return 2;
    }
    const char* value = argv[++i];
    unsigned long long number = 0;
    if (option == "--port" && parseNumber(value, 65535, &number)) {
      config.port = static_cast<uint16_t>(number);
    } else if (option == "--bind") {
      config.bindAddress = value;
    } else if (option == "--idle-timeout" && parseNumber(value, 1ull << 31, &number)) {
      config.idleTimeout = std::chrono::seconds(number);
    } else if (option == "--output-limit" && parseNumber(value, SIZE_MAX, &number)) {
      config.clientOutputLimit = static_cast<size_t>(number);
    } else {
      std::cerr << "tarvo-kv: bad option: " << option << " " << value << "\n" << kUsage;
      return 2;
    }
  }

  // SIGINT and SIGTERM arrive through a signalfd read by a task; SIGPIPE is not wanted at
  // all (a client gone while we write shows as an error of send()).
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  try {
    auto root = Tarvo::schedulerRootTarvo();
    TarvoKv::KvServer server(root, config);
    std::cout << "tarvo-kv listening on " << config.bindAddress << ":" << server.port()
              << std::endl;
    Tarvo::Platform::doEventLoop();
    std::cout << "tarvo-kv stopped" << std::endl;
  } catch (const std::exception& e) {
    std::cerr << "tarvo-kv: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
