// The pure part of the path helpers: which directories a call would touch, worked out from the
// path texts alone, so that any text can be checked without a file system.
#pragma once

#include <string>
#include <vector>

namespace Tarvo::Util::Impl {

// The directories trimpath(absolute, trailing) removes, deepest first: `absolute`, then each
// ancestor obtained by cutting at the last '/' while that '/' lies inside the `trailing` part.
// Throws AssertException, as trimpath does, when `absolute` is empty or relative, `trailing`
// is empty, not shorter than `absolute`, or not its terminal part, or `absolute` holds a NUL.
std::vector<std::string> trimpathDirectories(const std::string& absolute,
                                             const std::string& trailing);

}  // namespace Tarvo::Util::Impl
