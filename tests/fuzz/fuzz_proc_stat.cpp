// A /proc/<pid>/stat line: the start time (field 22) is found from the last ')', whatever the
// command name holds. Any line gives a field or AssertException; a field given is a blank-free
// piece of the line's tail.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "Tarvo/Exception.h"
#include "util/ProcParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string line(reinterpret_cast<const char*>(data), size);
  std::string field;
  try {
    field = Tarvo::Util::Impl::procStartTimeFromStat(Tarvo::Fuzz::quietHandler(), line, "fuzz");
  } catch (const Tarvo::AssertException&) {
    return 0;
  }
  TARVO_CHECK(!field.empty());
  TARVO_CHECK(field.find(' ') == std::string::npos);
  size_t close = line.rfind(')');
  TARVO_CHECK(close != std::string::npos);
  TARVO_CHECK(line.find(field, close) != std::string::npos);
  return 0;
}
