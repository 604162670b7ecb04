// The process-wide pseudo-random source of tests and of code that needs random names.
//
// Runs are reproducible: setSeed() traces the seed it uses on the "TarvoRandom" handler at
// level 0, and a run started with ZQTEST_RANDSEED=<that seed> sees the same sequence.
//
//   Tarvo::Random::setSeed();                        // "setting seed to 1234567"
//   std::string name = Tarvo::Random::randomString(8);
//
// Thread rules: setSeed() and getSeed() may be called from any thread. The sequence comes
// from the C library's rand(), shared by the whole process, so only callers that draw from one
// thread get a reproducible sequence.
#pragma once

#include <string>

namespace Tarvo {

// The process-wide pseudo-random source; see the top of this file.
class Random {
 public:
  // On the first call chooses the seed: the value of ZQTEST_RANDSEED (decimal; a non-numeric
  // value gives 0) when set, else the nanoseconds of the monotonic clock. Every call traces the
  // seed and re-seeds rand() with it, so a second call restarts the same sequence.
  static void setSeed();

  // The seed in use; 0 before the first setSeed().
  static unsigned getSeed();

  // `len` characters drawn with rand() % 63 from the 62 digits and letters plus a zero byte,
  // so a result may hold NUL characters (about one in 63). Does not seed.
  static std::string randomString(unsigned len);
};

}  // namespace Tarvo
