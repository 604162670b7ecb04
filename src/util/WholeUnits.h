// A span given in seconds as a double, counted in whole units (microseconds, nanoseconds).
#pragma once

#include <cstdint>

namespace Tarvo::Util::Impl {

// `seconds` (positive, and small enough that the count fits) as a whole number of units of
// which `perSecond` make a second, truncated: a real fraction of a unit never rounds the span
// up. The product can still land just below a whole count that the double stands for (1.001,
// stored a little below its decimal value, times 1e6 gives 1000999.9999999999), which would
// arm a timer a unit early; the next count is taken when, written as seconds, it is no more
// than the span. The division is paid only for fractions above one half.
inline int64_t wholeUnits(double seconds, double perSecond) {
  const double scaled = seconds * perSecond;
  auto units = static_cast<int64_t>(scaled);
  if (scaled - static_cast<double>(units) > 0.5 &&
      static_cast<double>(units + 1) / perSecond <= seconds) {
    ++units;
  }
  return units;
}

}  // namespace Tarvo::Util::Impl
