// TRACEFORMAT lists: setTraceFormat() must accept any text. A list of known fields (empty
// items skipped) selects exactly those fields; a list with any unknown field, and "help",
// change nothing.
#include <atomic>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "Tarvo/Debug.h"

namespace {

using Tarvo::Zel::DebugControl;

std::atomic<bool>* const kFlags[] = {
    &DebugControl::showDate_,     &DebugControl::showTime_,       &DebugControl::showPid_,
    &DebugControl::showTid_,      &DebugControl::showHandleName_, &DebugControl::showLevel_,
    &DebugControl::showLineInfo_, &DebugControl::showFuncName_,
};
const char* const kWords[] = {"date",   "time",  "pid",       "tid",
                              "handle", "level", "line-info", "func-name"};

unsigned flagsNow() {
  unsigned bits = 0;
  for (unsigned i = 0; i < 8; ++i) {
    bits |= kFlags[i]->load() ? 1u << i : 0;
  }
  return bits;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string spec(reinterpret_cast<const char*>(data), size);
  if (spec.find('\0') != std::string::npos) {
    return 0;  // an environment variable cannot hold one
  }
  unsigned before = flagsNow();
  unsigned wanted = 0;
  bool valid = spec != "help";
  std::istringstream items(spec);
  std::string item;
  while (valid && std::getline(items, item, ',')) {
    if (item.empty()) {
      continue;
    }
    unsigned i = 0;
    while (i < 8 && item != kWords[i]) {
      ++i;
    }
    valid = i < 8;
    wanted |= valid ? 1u << i : 0;
  }
  Tarvo::Platform::setTraceFormat(spec.c_str());
  TARVO_CHECK(flagsNow() == (valid ? wanted : before));
  return 0;
}
