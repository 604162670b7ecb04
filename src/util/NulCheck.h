// Refusing paths and names that hold a NUL byte. The system calls take C strings, which end
// at the first NUL: such a std::string would silently stand for a shorter, different path.
#pragma once

#include <cerrno>
#include <string>

namespace Tarvo::Util::Impl {

inline bool holdsNul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

// True, with errno set to EINVAL, when `path` holds a NUL byte; callers then report the
// failure exactly as if the system call had refused the path.
inline bool refusesNul(const std::string& path) {
  if (holdsNul(path)) [[unlikely]] {
    errno = EINVAL;
    return true;
  }
  return false;
}

// `text` with each NUL byte written as the two characters \0, for messages.
inline std::string shownNul(const std::string& text) {
  std::string shown;
  for (char c : text) {
    if (c == '\0') {
      shown += "\\0";
    } else {
      shown += c;
    }
  }
  return shown;
}

}  // namespace Tarvo::Util::Impl
