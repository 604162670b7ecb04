#include "stats/JsonText.h"

namespace Tarvo {

namespace {

// The length of the valid UTF-8 sequence starting at s[i], or 0 if the bytes there do not
// form one.
size_t utf8SequenceLength(std::string_view s, size_t i) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char lead = byte(i);
  size_t n;
  unsigned char lo = 0x80, hi = 0xbf;  // allowed range of the second byte
  if (lead >= 0xc2 && lead <= 0xdf) {
    n = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    n = 3;
    if (lead == 0xe0) {
      lo = 0xa0;  // overlong below U+0800
    } else if (lead == 0xed) {
      hi = 0x9f;  // UTF-16 surrogates
    }
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    n = 4;
    if (lead == 0xf0) {
      lo = 0x90;  // overlong below U+10000
    } else if (lead == 0xf4) {
      hi = 0x8f;  // above U+10FFFF
    }
  } else {
    return 0;
  }
  if (i + n > s.size() || byte(i + 1) < lo || byte(i + 1) > hi) {
    return 0;
  }
  for (size_t k = 2; k < n; ++k) {
    if ((byte(i + k) & 0xc0) != 0x80) {
      return 0;
    }
  }
  return n;
}

}  // namespace

void writeJsonString(std::ostream& os, std::string_view s) {
  static constexpr char hex[] = "0123456789abcdef";
  // Bytes that need nothing are written in runs, straight from `s`.
  os.put('"');
  size_t run = 0;
  auto flush = [&](size_t upTo) {
    os.write(s.data() + run, static_cast<std::streamsize>(upTo - run));
  };
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') {
      ++i;
      continue;
    }
    if (c >= 0x80) {
      if (size_t n = utf8SequenceLength(s, i); n != 0) {
        i += n;
        continue;
      }
    }
    flush(i);
    switch (c) {
      case '"':
        os << "\\\"";
        break;
      case '\\':
        os << "\\\\";
        break;
      case '\n':
        os << "\\n";
        break;
      case '\t':
        os << "\\t";
        break;
      case '\r':
        os << "\\r";
        break;
      default:
        if (c < 0x20) {
          const char escape[] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 0xf]};
          os.write(escape, sizeof escape);
        } else {
          os << "\xef\xbf\xbd";  // U+FFFD for a byte that starts no valid sequence
        }
    }
    run = ++i;
  }
  flush(s.size());
  os.put('"');
}

void writeMicroseconds(std::ostream& os, int64_t ns) {
  // Split on the absolute value so that the fraction of a negative count reads correctly; the
  // unsigned arithmetic also covers INT64_MIN.
  uint64_t magnitude = ns < 0 ? 0 - static_cast<uint64_t>(ns) : static_cast<uint64_t>(ns);
  char fraction[4] = {static_cast<char>('0' + magnitude % 1000 / 100),
                      static_cast<char>('0' + magnitude % 100 / 10),
                      static_cast<char>('0' + magnitude % 10), '\0'};
  if (ns < 0) {
    os << '-';
  }
  os << magnitude / 1000 << '.' << fraction;
}

}  // namespace Tarvo
