// /proc/locks and fdinfo texts: the pre-filter of readLockPid and the lock test of one
// descriptor. The input is a /proc entry name, a NUL byte, then the text. A pid named in
// the text always passes the filter, and so does every pid once an OFD lock is listed.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "util/ProcParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  size_t split = input.find('\0');
  if (split == std::string::npos) {
    return 0;
  }
  std::string entry = input.substr(0, split);
  std::string text = input.substr(split + 1);
  using namespace Tarvo::Util::Impl;
  bool listed = procLocksMayList(text, entry);
  TARVO_CHECK(listed ||
              (text.find(entry) == std::string::npos && text.find("OFDLCK") == std::string::npos));
  bool locked = fdinfoShowsLock(text);
  TARVO_CHECK(!locked || text.find("POSIX") != std::string::npos ||
              text.find("OFDLCK") != std::string::npos);
  return 0;
}
