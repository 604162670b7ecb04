// /proc/<pid>/maps lines. Any line parses or is refused without overflowing the permission
// field; a parsed path holds no newline. A line formatted the way the kernel writes it from
// values taken from the input parses back to those values, and a whole text stops at the
// first line that does not parse.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "Tarvo/Mappings.h"

namespace {

void checkRoundTrip(FuzzedDataProvider& in) {
  Tarvo::MappingInfo want;
  want.start = in.ConsumeIntegral<uintptr_t>();
  want.end = in.ConsumeIntegral<uintptr_t>();
  static const char kPerm[4][2] = {{'r', '-'}, {'w', '-'}, {'x', '-'}, {'p', 's'}};
  for (unsigned i = 0; i < 4; ++i) {
    want.perms += kPerm[i][in.ConsumeBool() ? 1 : 0];
  }
  want.offset = in.ConsumeIntegral<uintptr_t>();
  want.major = in.ConsumeIntegral<uint32_t>();
  want.minor = in.ConsumeIntegral<uint32_t>();
  want.inode = in.ConsumeIntegral<uintptr_t>();
  want.path = in.ConsumeRandomLengthString(256);
  want.path = want.path.substr(0, want.path.find_first_of(std::string("\n\0", 2)));
  want.path = want.path.substr(std::min(want.path.size(), want.path.find_first_not_of(" \t")));
  char fixed[160];
  std::snprintf(fixed, sizeof fixed,
                "%" PRIxPTR "-%" PRIxPTR " %s %08" PRIxPTR " %02x:%02x %" PRIuPTR, want.start,
                want.end, want.perms.c_str(), want.offset, want.major, want.minor, want.inode);
  std::string line = std::string(fixed) + (want.path.empty() ? "" : "    " + want.path);
  Tarvo::MappingInfo got;
  TARVO_CHECK(Tarvo::MappingInfo::parse(line, got));
  TARVO_CHECK(got.start == want.start && got.end == want.end && got.perms == want.perms);
  TARVO_CHECK(got.offset == want.offset && got.major == want.major && got.minor == want.minor);
  TARVO_CHECK(got.inode == want.inode && got.path == want.path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  Tarvo::MappingInfo info;
  if (Tarvo::MappingInfo::parse(text, info)) {
    TARVO_CHECK(info.perms.size() <= 7);
    TARVO_CHECK(info.path.find('\n') == std::string::npos);
  }
  std::istringstream lines(text);
  Tarvo::MappingInfos infos = Tarvo::PidMappings::parse(lines);
  TARVO_CHECK(infos.size() <= static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1);

  FuzzedDataProvider in(data, size);
  checkRoundTrip(in);
  return 0;
}
