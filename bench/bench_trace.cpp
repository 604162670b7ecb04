// Trace and exception costs, each beside its anchor in the same binary:
//  - a disabled TARVO_TRACE against a bare `if (word & bit)` on an opaque word;
//  - an enabled line to a TRACEFILE against writing the same preformatted line with
//    std::ofstream and a flush;
//  - throwing and catching a Tarvo exception 20 frames deep (backtrace captured, not
//    symbolised) against std::runtime_error at the same depth.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"

namespace {

Tarvo::Platform::DebugHandler* benchHandler() {
  static Tarvo::Platform::DebugHandler* handler = Tarvo::Platform::getDebugHandler("BenchTrace");
  return handler;
}

void BM_AnchorBareBitTest(benchmark::State& state) {
  uint32_t word = 0;
  int hits = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(word);  // the word is opaque: it is loaded every time
    if (word & (1u << 5)) {
      ++hits;
    }
    benchmark::DoNotOptimize(hits);
  }
}
BENCHMARK(BM_AnchorBareBitTest);

void BM_DisabledTrace(benchmark::State& state) {
  Tarvo::Platform::DebugHandler* handler = benchHandler();
  int hits = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(handler);
    TARVO_TRACE(handler, 5, "never built " << ++hits);
    benchmark::DoNotOptimize(hits);
  }
}
BENCHMARK(BM_DisabledTrace);

const std::string& tracePath() {
  static const std::string path = "/tmp/tarvo-bench-trace." + std::to_string(getpid());
  return path;
}

void BM_AnchorOfstreamLineWithFlush(benchmark::State& state) {
  std::ofstream out(tracePath(), std::ios::trunc);
  const std::string line = "2026-11-21 15:25:23.438381 2822 BenchTrace 1 request 12345 done";
  for (auto _ : state) {
    out << line << '\n' << std::flush;
  }
  out.close();
  std::remove(tracePath().c_str());
}
BENCHMARK(BM_AnchorOfstreamLineWithFlush);

void BM_EnabledTraceToFile(benchmark::State& state) {
  setenv("TRACEFILE", tracePath().c_str(), 1);
  Tarvo::Platform::setupTarvoDebug("BenchTrace/1");
  Tarvo::Platform::DebugHandler* handler = benchHandler();
  int request = 12345;
  for (auto _ : state) {
    TARVO_TRACE(handler, 1, "request " << request << " done");
  }
  unsetenv("TRACEFILE");
  Tarvo::Platform::setupTarvoDebug("");
  Tarvo::Platform::clearTarvoDebug("BenchTrace/1");
  std::remove(tracePath().c_str());
}
BENCHMARK(BM_EnabledTraceToFile);

// `raise` goes through an opaque pointer so that the compiler cannot see that the
// innermost frame never returns.
__attribute__((noinline)) void throwAtDepth(int depth, void (*raise)()) {
  if (depth > 0) {
    throwAtDepth(depth - 1, raise);
    benchmark::ClobberMemory();  // keeps the recursion from becoming a loop
    return;
  }
  benchmark::DoNotOptimize(raise);
  raise();
}

void BM_AnchorStdExceptionDepth20(benchmark::State& state) {
  for (auto _ : state) {
    try {
      throwAtDepth(20, [] { throw std::runtime_error("failed"); });
    } catch (const std::exception& e) {
      benchmark::DoNotOptimize(e.what());
    }
  }
}
BENCHMARK(BM_AnchorStdExceptionDepth20)->Unit(benchmark::kMicrosecond);

void BM_TarvoExceptionDepth20(benchmark::State& state) {
  for (auto _ : state) {
    try {
      throwAtDepth(20, [] { Tarvo::RuntimeException::throwException("failed"); });
    } catch (const Tarvo::Exception& e) {
      benchmark::DoNotOptimize(e.backtrace().count());
    }
  }
}
BENCHMARK(BM_TarvoExceptionDepth20)->Unit(benchmark::kMicrosecond);

void BM_TarvoExceptionDepth20WithWhat(benchmark::State& state) {
  for (auto _ : state) {
    try {
      throwAtDepth(20, [] { Tarvo::RuntimeException::throwException("failed"); });
    } catch (const Tarvo::Exception& e) {
      benchmark::DoNotOptimize(e.what());
    }
  }
}
BENCHMARK(BM_TarvoExceptionDepth20WithWhat)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
