#include "util/EnvNumbers.h"

#include <cerrno>
#include <cstdlib>

namespace Tarvo::Impl {

bool parseWaitForDefault(const char* text, double* out) {
  char* end = nullptr;
  errno = 0;
  double parsed = std::strtod(text, &end);
  if (end == text || errno == ERANGE) {
    return false;
  }
  *out = parsed;
  return true;
}

unsigned parseRandSeed(const char* text) {
  return static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

}  // namespace Tarvo::Impl
