#include "Tarvo/Random.h"

#include <time.h>

#include <cstdlib>

#include "Tarvo/Debug.h"
#include "Tarvo/Platform.h"
#include "util/EnvNumbers.h"

namespace Tarvo {
namespace {

unsigned seed = 0;
bool firstSetSeedFlag = true;

Platform::DebugHandler* randomHandler() {
  static Platform::DebugHandler* handler = Platform::getDebugHandler("TarvoRandom");
  return handler;
}

// Registers the handler when the library is loaded, so TRACE lists it from the start.
[[maybe_unused]] Platform::DebugHandler* const registeredAtLoad = randomHandler();

constexpr char kAlphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
static_assert(sizeof kAlphabet == 63, "62 characters and the terminating zero byte");

}  // namespace

void Random::setSeed() {
  Platform::LocoGuard guard;
  if (firstSetSeedFlag) {
    firstSetSeedFlag = false;
    if (const char* env = std::getenv("ZQTEST_RANDSEED")) {
      seed = Impl::parseRandSeed(env);
    } else {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      seed = static_cast<unsigned>(now.tv_nsec);
    }
  }
  TARVO_TRACE(randomHandler(), 0, "Tarvo::Random::setSeed(), setting seed to " << seed);
  std::srand(seed);
}

unsigned Random::getSeed() {
  Platform::LocoGuard guard;
  return seed;
}

std::string Random::randomString(unsigned len) {
  std::string result(len, '\0');
  for (char& c : result) {
    // The modulus includes the terminating zero byte on purpose: it is part of the sequence a
    // traced seed reproduces.
    c = kAlphabet[std::rand() % sizeof kAlphabet];
  }
  return result;
}

}  // namespace Tarvo
