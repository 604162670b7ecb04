// The numeric environment values: WAITFOR_DEFAULT seconds and the ZQTEST_RANDSEED seed. Any
// text is answered without reading past its end; a seed of digits alone is that number cut to
// unsigned, and a WAITFOR_DEFAULT that parses leaves the output untouched otherwise.
#include <cmath>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "util/EnvNumbers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  const char* c = text.c_str();

  double seconds = -7.25;
  bool parsed = Tarvo::Impl::parseWaitForDefault(c, &seconds);
  TARVO_CHECK(parsed || seconds == -7.25);
  // The text starts with a number (after blanks) whenever the conversion succeeds.
  size_t first = text.find_first_not_of(" \t\n\v\f\r");
  TARVO_CHECK(!parsed || first != std::string::npos);

  unsigned seed = Tarvo::Impl::parseRandSeed(c);
  if (!text.empty() && text.size() <= 9 &&
      text.find_first_not_of("0123456789") == std::string::npos) {
    TARVO_CHECK(seed == std::stoul(text));
  }
  if (text.find_first_of("0123456789") == std::string::npos) {
    TARVO_CHECK(seed == 0);
  }
  return 0;
}
