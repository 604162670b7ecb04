// A /proc/<pid>/status text: the "Name:" value. The answer is empty or a piece of the text
// with no blank, tab or newline at either end.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "util/ProcParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string status(reinterpret_cast<const char*>(data), size);
  std::string title =
      Tarvo::Util::Impl::procTitleFromStatus(Tarvo::Fuzz::quietHandler(), status, 1);
  if (title.empty()) {
    return 0;
  }
  static constexpr const char* kBlanks = " \t\n";
  TARVO_CHECK(status.find("Name:") != std::string::npos);
  TARVO_CHECK(status.find(title) != std::string::npos);
  TARVO_CHECK(title.find('\n') == std::string::npos);
  TARVO_CHECK(title.find_first_of(kBlanks) != 0);
  TARVO_CHECK(title.find_last_of(kBlanks) != title.size() - 1);
  return 0;
}
