// The anchor of the figures for work that runs without an event-loop pass per item: a
// Boost.Asio handler that posts itself again, one handler run per iteration.
#pragma once

#include <benchmark/benchmark.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

namespace Tarvo::Bench {

struct PostChain {
  boost::asio::io_context* io;
  void operator()() const { boost::asio::post(*io, *this); }
};

inline void BM_AsioPostChain(benchmark::State& state) {
  boost::asio::io_context io;
  boost::asio::post(io, PostChain{&io});
  for (auto _ : state) {
    io.run_one();
  }
  io.stop();
}
BENCHMARK(BM_AsioPostChain);

}  // namespace Tarvo::Bench
