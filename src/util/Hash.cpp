#include <cstdint>
#include <string>

#include "Tarvo/UtilHelpers.h"

namespace Tarvo {
namespace Util {
namespace {

template <typename Word, Word kOffsetBasis, Word kPrime>
Word fnv1a(const void* data, size_t len) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  Word value = kOffsetBasis;
  for (size_t i = 0; i < len; ++i) {
    value ^= bytes[i];
    value *= kPrime;
  }
  return value;
}

constexpr auto fnv32 = fnv1a<uint32_t, 0x811c9dc5u, 16777619u>;
constexpr auto fnv64 = fnv1a<uint64_t, 0xcbf29ce484222325ull, 0x100000001b3ull>;

}  // namespace

uint32_t hash(const void* data, unsigned len) {
  return fnv32(data, len);
}
uint32_t hash(const std::string& text) {
  return fnv32(text.data(), text.size());
}
uint64_t hash64(const void* data, unsigned len) {
  return fnv64(data, len);
}
uint64_t hash64(const std::string& text) {
  return fnv64(text.data(), text.size());
}

}  // namespace Util
}  // namespace Tarvo
