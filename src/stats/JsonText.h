// Pieces of JSON text shared by the trace-event and statistics writers.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

namespace Tarvo {

// Writes `s` as a quoted JSON string. Quotes, backslashes and control bytes are escaped; bytes
// that do not form valid UTF-8 (stray continuation bytes, overlong forms, surrogates, code
// points above U+10FFFF, truncated sequences) each become U+FFFD, so the output is valid UTF-8
// and valid JSON whatever `s` holds.
void writeJsonString(std::ostream& os, std::string_view s);

// Writes a nanosecond count as microseconds with three decimals ("12.345"), exactly.
void writeMicroseconds(std::ostream& os, int64_t ns);

}  // namespace Tarvo
