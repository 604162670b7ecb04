// Descriptor tasks on the real event loop, beside raw libevent read events in the same binary:
//  - one-byte ping-pong over a socket pair between two FileDescriptorTasks, against the same
//    ping-pong written with two persistent libevent read events;
//  - a byte passed round a ring of N connected socket pairs, one descriptor active at a time,
//    with N = 2 and N = 1,000, to show that the per-event cost does not grow with the idle
//    descriptors; the raw libevent ring beside it.
// Every iteration moves kMessages bytes inside one loop call; "per_message" is one of them (a
// read, a write and the loop work that joins them).
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"

namespace {

constexpr int kMessages = 10000;

benchmark::Counter perMessage() {
  return benchmark::Counter(
      kMessages, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

struct Pair {
  int fd[2];
  Pair() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fd) != 0) {
      std::abort();
    }
  }
  ~Pair() { close(fd[0]), close(fd[1]); }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;
};

void sendByte(int fd) {
  char c = 'x';
  if (write(fd, &c, 1) != 1) {
    std::abort();
  }
}

bool receiveByte(int fd) {
  char c;
  return read(fd, &c, 1) == 1;
}

// Reads one byte from its descriptor and sends one to `next`; the last message of an
// iteration breaks the loop instead.
class Relay : public Tarvo::FileDescriptorTask {
 public:
  Relay(std::shared_ptr<Tarvo::TaskScheduler> root, int fd, int next, int* left)
      : FileDescriptorTask(std::move(root), Tarvo::TaskPriority::normal, "relay"),
        next_(next),
        left_(left) {
    taskWatchFdIs(fd);
  }
  void taskExecuteReadable() override {
    if (!receiveByte(taskWatchFd())) {
      return;
    }
    if (--*left_ > 0) {
      sendByte(next_);
    } else {
      event_base_loopbreak(Tarvo::leBase());
    }
  }
  void taskExecuteWritable() override {}

 private:
  int next_;
  int* left_;
};

// The same relay as a raw persistent libevent read event.
struct RawRelay {
  RawRelay(int fd, int next, int* left)
      : next(next),
        left(left),
        ev(event_new(Tarvo::leBase(), fd, EV_READ | EV_PERSIST, fire, this)) {
    event_add(ev, nullptr);
  }
  ~RawRelay() { event_free(ev); }
  static void fire(evutil_socket_t fd, short, void* arg) {
    auto* self = static_cast<RawRelay*>(arg);
    if (!receiveByte(fd)) {
      return;
    }
    if (--*self->left > 0) {
      sendByte(self->next);
    } else {
      event_base_loopbreak(Tarvo::leBase());
    }
  }
  int next;
  int* left;
  event* ev;
};

// In a ring of n pairs relay i reads pair i's first end and writes pair (i + 1)'s second end;
// in the ping-pong each relay writes back on the end it reads.
template <typename Body>
void runRing(benchmark::State& state, Body body) {
  Tarvo::leInit();
  for (auto _ : state) {
    body();
  }
  state.counters["per_message"] = perMessage();
}

void BM_PingPongFileDescriptorTasks(benchmark::State& state) {
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  Pair pair;
  int left = 0;
  auto a = std::make_shared<Relay>(root, pair.fd[0], pair.fd[0], &left);
  auto b = std::make_shared<Relay>(root, pair.fd[1], pair.fd[1], &left);
  runRing(state, [&] {
    left = kMessages;
    sendByte(pair.fd[0]);
    Tarvo::Platform::doEventLoop();
  });
}

void BM_PingPongRawLibevent(benchmark::State& state) {
  Tarvo::leInit();
  Pair pair;
  int left = 0;
  RawRelay a(pair.fd[0], pair.fd[0], &left), b(pair.fd[1], pair.fd[1], &left);
  runRing(state, [&] {
    left = kMessages;
    sendByte(pair.fd[0]);
    event_base_dispatch(Tarvo::leBase());
  });
}

void BM_RingFileDescriptorTasks(benchmark::State& state) {
  auto root = Tarvo::schedulerRootTarvoNonShared("bench");
  const int n = int(state.range(0));
  std::vector<Pair> pairs(n);
  int left = 0;
  std::vector<std::shared_ptr<Relay>> relays;
  for (int i = 0; i < n; ++i) {
    relays.push_back(
        std::make_shared<Relay>(root, pairs[i].fd[0], pairs[(i + 1) % n].fd[1], &left));
  }
  runRing(state, [&] {
    left = kMessages;
    sendByte(pairs[0].fd[1]);
    Tarvo::Platform::doEventLoop();
  });
}

void BM_RingRawLibevent(benchmark::State& state) {
  Tarvo::leInit();
  const int n = int(state.range(0));
  std::vector<Pair> pairs(n);
  int left = 0;
  std::vector<std::unique_ptr<RawRelay>> relays;
  for (int i = 0; i < n; ++i) {
    relays.push_back(std::make_unique<RawRelay>(pairs[i].fd[0], pairs[(i + 1) % n].fd[1], &left));
  }
  runRing(state, [&] {
    left = kMessages;
    sendByte(pairs[0].fd[1]);
    event_base_dispatch(Tarvo::leBase());
  });
}

BENCHMARK(BM_PingPongRawLibevent);
BENCHMARK(BM_PingPongFileDescriptorTasks);
BENCHMARK(BM_RingRawLibevent)->Arg(2)->Arg(1000);
BENCHMARK(BM_RingFileDescriptorTasks)->Arg(2)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
