// 10,000 socket pairs (or argv[1]) served by descriptor tasks. For each pair a writer task
// sends a random number of bytes (up to 64 KiB) in random chunks whenever its end is writable,
// then closes it; a reader task on the other end reads random amounts, sometimes returning
// before the descriptor is drained, and checks every byte against the pair's own pattern
// until end of file. Every byte written must arrive, in order, exactly once. Pairs are served
// in waves as large as the descriptor limit allows; at the end every task is gone, the counts
// are back at zero and no descriptor is left open.
#include <dirent.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <random>
#include <vector>

#include "StressSupport.h"
#include "Tarvo/FileDescriptorTask.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskSchedulerRootTarvo.h"

namespace {

using Tarvo::TaskPriority;

// Byte `offset` of the stream of pair `pair`.
unsigned char patternByte(unsigned long pair, unsigned long offset) {
  return static_cast<unsigned char>((pair * 131 + offset * 7 + (offset >> 8)) & 0xff);
}

struct Totals {
  unsigned long written = 0, read = 0, writeRuns = 0, readRuns = 0, earlyReturns = 0;
};

class Writer : public Tarvo::FileDescriptorTask {
 public:
  Writer(std::shared_ptr<Tarvo::TaskScheduler> root, unsigned long pair, unsigned long bytes,
         std::mt19937_64& rng, Totals& totals)
      : FileDescriptorTask(std::move(root), TaskPriority(static_cast<int>(rng() % 5)), "writer"),
        pair_(pair),
        bytes_(bytes),
        rng_(rng),
        totals_(totals) {}

  void start(int fd) {
    taskWatchFdIs(fd);
    taskWatchReadableIs(false);
    taskWatchWritableIs(true);
  }
  void taskExecuteReadable() override { TARVO_CHECK(!"a writer's reads are not watched"); }
  void taskExecuteWritable() override {
    ++totals_.writeRuns;
    const int fd = taskWatchFd();
    unsigned char chunk[4096];
    const unsigned long want = std::min<unsigned long>(bytes_ - sent_, rng_() % sizeof chunk + 1);
    for (unsigned long i = 0; i < want; ++i) {
      chunk[i] = patternByte(pair_, sent_ + i);
    }
    ssize_t n = ::write(fd, chunk, want);
    if (n > 0) {
      sent_ += static_cast<unsigned long>(n);
      totals_.written += static_cast<unsigned long>(n);
    } else {
      TARVO_CHECK(n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
    }
    if (sent_ < bytes_) {
      taskWatchWritableIs(true);
      return;
    }
    taskWatchFdDel();
    ::close(fd);
    done = true;
  }

  bool done = false;

 private:
  unsigned long pair_, bytes_, sent_ = 0;
  std::mt19937_64& rng_;
  Totals& totals_;
};

class Reader : public Tarvo::FileDescriptorTask {
 public:
  Reader(std::shared_ptr<Tarvo::TaskScheduler> root, unsigned long pair, std::mt19937_64& rng,
         Totals& totals)
      : FileDescriptorTask(std::move(root), TaskPriority(static_cast<int>(rng() % 5)), "reader"),
        pair_(pair),
        rng_(rng),
        totals_(totals) {}

  void taskExecuteReadable() override {
    ++totals_.readRuns;
    const int fd = taskWatchFd();
    unsigned char buf[4096];
    for (;;) {
      ssize_t n = ::read(fd, buf, rng_() % sizeof buf + 1);
      if (n > 0) {
        for (ssize_t i = 0; i < n; ++i) {
          TARVO_CHECK(buf[i] == patternByte(pair_, received + static_cast<unsigned long>(i)));
        }
        received += static_cast<unsigned long>(n);
        totals_.read += static_cast<unsigned long>(n);
        if (rng_() % 4 == 0) {
          ++totals_.earlyReturns;  // not drained: the watch brings the task back
          return;
        }
        continue;
      }
      if (n == 0) {
        taskWatchFdDel();
        ::close(fd);
        done = true;
        return;
      }
      TARVO_CHECK(errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
      if (errno != EINTR) {
        return;
      }
    }
  }
  void taskExecuteWritable() override { TARVO_CHECK(!"a reader's writes are not watched"); }

  unsigned long received = 0;
  bool done = false;

 private:
  unsigned long pair_;
  std::mt19937_64& rng_;
  Totals& totals_;
};

int openDescriptors() {
  int count = 0;
  if (DIR* dir = ::opendir("/proc/self/fd")) {
    while (::readdir(dir) != nullptr) {
      ++count;
    }
    ::closedir(dir);
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  auto o = Tarvo::Stress::options(argc, argv, "stress_sockets", 10000);
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  const unsigned long perWave = std::min<unsigned long>(
      {o.count, 4000, (static_cast<unsigned long>(limit.rlim_cur) - 64) / 2});
  TARVO_CHECK(perWave > 0);

  std::mt19937_64 rng(o.seed);
  std::shared_ptr<Tarvo::TaskSchedulerRoot> root = Tarvo::schedulerRootTarvoNonShared("stress");
  const int descriptorsBefore = openDescriptors();
  Totals totals;
  unsigned long expected = 0, waves = 0;
  for (unsigned long first = 0; first < o.count; first += perWave, ++waves) {
    const unsigned long pairs = std::min(perWave, o.count - first);
    std::vector<std::shared_ptr<Writer>> writers;
    std::vector<std::shared_ptr<Reader>> readers;
    std::vector<unsigned long> sizes;
    for (unsigned long p = first; p < first + pairs; ++p) {
      int fds[2];
      TARVO_CHECK(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
      sizes.push_back(rng() % 65537);
      expected += sizes.back();
      readers.push_back(std::make_shared<Reader>(root, p, rng, totals));
      readers.back()->taskWatchFdIs(fds[0]);
      writers.push_back(std::make_shared<Writer>(root, p, sizes.back(), rng, totals));
      writers.back()->start(fds[1]);
    }
    Tarvo::Platform::doEventLoop();
    for (unsigned long i = 0; i < pairs; ++i) {
      TARVO_CHECK(writers[i]->done && readers[i]->done);
      TARVO_CHECK(readers[i]->received == sizes[i]);
    }
  }
  TARVO_CHECK(totals.written == expected && totals.read == expected);
  std::printf(
      "pairs %lu in %lu waves, bytes written %lu, read %lu, writer runs %lu, reader "
      "runs %lu, early reader returns %lu\n",
      o.count, waves, totals.written, totals.read, totals.writeRuns, totals.readRuns,
      totals.earlyReturns);
  TARVO_CHECK(root->registeredTaskCount() == 0);
  TARVO_CHECK(root->runnableTaskCount() == 0);
  root.reset();
  TARVO_CHECK(openDescriptors() == descriptorsBefore);
  std::printf("task counts back at zero, no descriptor left open\n");
  return 0;
}
