// Message building for the scheduler's checks: the parts streamed one after another, so that
// tasks, schedulers, priorities and durations appear as they do in trace lines.
#pragma once

#include <sstream>
#include <string>

namespace Tarvo {

template <typename... Parts>
std::string concat(const Parts&... parts) {
  std::ostringstream os;
  (os << ... << parts);
  return os.str();
}

}  // namespace Tarvo
