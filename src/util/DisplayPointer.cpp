#include "Tarvo/DisplayPointer.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>

namespace Tarvo {
namespace {

// Formats into `buffer` (at least 24 bytes) and returns the length.
int format(const void* pointer, char* buffer, size_t size) {
  if (pointer == nullptr) {
    return std::snprintf(buffer, size, "NULL");
  }
  return std::snprintf(buffer, size, "0x%08" PRIxPTR, reinterpret_cast<std::uintptr_t>(pointer));
}

}  // namespace

std::string DisplayPointer::toString() const {
  char buffer[24];
  return std::string(buffer, static_cast<size_t>(format(pointer_, buffer, sizeof buffer)));
}

// Written unformatted, so the stream's flags, width and fill neither shape the text nor change.
std::ostream& operator<<(std::ostream& os, const DisplayPointer& pointer) {
  char buffer[24];
  return os.write(buffer, format(pointer.pointer(), buffer, sizeof buffer));
}

}  // namespace Tarvo
