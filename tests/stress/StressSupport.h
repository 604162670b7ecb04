// Shared by the stress programs: the checks, the command line and the seed.
//
// Every program takes an optional count (the size of the run; memcheck passes a smaller one)
// and an optional seed; it prints the seed first so that a failing run can be repeated, and
// its figures last.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "../common/AbortingCheck.h"

namespace Tarvo::Stress {

struct Options {
  unsigned long count;
  unsigned long seed;
};

// argv[1]: the count (default `defaultCount`); argv[2]: the seed (default: random).
inline Options options(int argc, char** argv, const char* program, unsigned long defaultCount) {
  Options o{defaultCount, std::random_device{}()};
  if (argc > 1) {
    o.count = std::strtoul(argv[1], nullptr, 10);
  }
  if (argc > 2) {
    o.seed = std::strtoul(argv[2], nullptr, 10);
  }
  if (o.count == 0 || argc > 3) {
    std::fprintf(stderr, "usage: %s [count > 0] [seed]\n", program);
    std::exit(2);
  }
  std::printf("%s: count %lu seed %lu\n", program, o.count, o.seed);
  std::fflush(stdout);
  return o;
}

}  // namespace Tarvo::Stress
