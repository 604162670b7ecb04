// Small helpers: FNV-1a hashes, hexadecimal dumps, typed value printers and substring
// display. All are thread-safe (ValuePrinter takes the library lock through the
// IntrospectionMap).
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

namespace Tarvo {

namespace Util {

// 32-bit FNV-1a (offset basis 0x811c9dc5, prime 16777619) of `len` bytes; no seed, no final
// mixing. Empty input gives 0x811c9dc5. The string form hashes all of the string's bytes,
// embedded NULs included.
uint32_t hash(const void* data, unsigned len);
uint32_t hash(const std::string& text);

// 64-bit FNV-1a (offset basis 0xcbf29ce484222325, prime 0x100000001b3).
uint64_t hash64(const void* data, unsigned len);
uint64_t hash64(const std::string& text);

}  // namespace Util

// The bytes as two lower-case hex digits each, a blank after every fourth byte that is not the
// last: 01 02 03 04 05 gives "01020304 05". A length of 0 or less gives "".
std::string dumpHex(const void* data, int len);

namespace Platform {

// Renders values of one type known by name and size, e.g. to show an object another process
// placed in shared memory. Make one with getValuePrinter().
class ValuePrinter {
 public:
  // A printer for values of that type name and size in bytes.
  ValuePrinter(std::string typeName, int size) : typeName_(std::move(typeName)), size_(size) {}
  virtual ~ValuePrinter() = default;

  // The custom text when it is non-empty, otherwise dumpHex of the value's `size` bytes.
  virtual std::string toString(const void* value);

  // The text of the printer registered in the IntrospectionMap for the type name, or "" when
  // none is registered.
  std::string customToString(const void* value) const;

  // The type name and the size given at construction.
  const std::string& typeName() const { return typeName_; }
  int size() const { return size_; }

 private:
  std::string typeName_;
  int32_t size_;
};

// A new printer (nothing is cached) for values of `typeName` that are `size` bytes long.
std::shared_ptr<ValuePrinter> getValuePrinter(const std::string& typeName, int size);

}  // namespace Platform

namespace Impl {

// Shows part of a text: the characters at indexes begin to end - 1, exactly, with no bounds
// check (the caller guarantees them), no terminator needed and nothing abbreviated.
class DisplaySubStringBase {
 public:
  // Writes / returns the characters `begin` to `end` of `text`.
  static void addToStream(std::ostream& os, const char* text, unsigned begin, unsigned end);
  static std::string toString(const char* text, unsigned begin, unsigned end);
};

}  // namespace Impl
}  // namespace Tarvo
