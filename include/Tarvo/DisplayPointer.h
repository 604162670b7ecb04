// The library's one way to print a pointer.
//
//   os << Tarvo::DisplayPointer(p);   // "0x0000a0f0", "0x7ffc12345678" or "NULL"
#pragma once

#include <ostream>
#include <string>

namespace Tarvo {

// Prints a pointer in lower-case hexadecimal with the "0x" prefix, zero-filled to at least ten
// characters in all, or "NULL" for a null pointer. The stream's flags, width and fill are left
// as they were.
class DisplayPointer {
 public:
  // Wraps `pointer` for printing.
  explicit DisplayPointer(const void* pointer) : pointer_(pointer) {}

  // The printed form, and the pointer itself.
  std::string toString() const;
  const void* pointer() const { return pointer_; }

 private:
  const void* pointer_;
};

// Writes the printed form of `pointer`.
std::ostream& operator<<(std::ostream& os, const DisplayPointer& pointer);

}  // namespace Tarvo
