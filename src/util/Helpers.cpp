#include "Tarvo/IntrospectionMap.h"
#include "Tarvo/UtilHelpers.h"

namespace Tarvo {

std::string dumpHex(const void* data, int len) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  if (len <= 0) {
    return text;
  }
  const auto* bytes = static_cast<const unsigned char*>(data);
  text.reserve(static_cast<size_t>(len) * 2 + static_cast<size_t>(len) / 4);
  for (int i = 0; i < len; ++i) {
    if (i > 0 && i % 4 == 0) {
      text += ' ';
    }
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xf];
  }
  return text;
}

namespace Platform {

std::string ValuePrinter::toString(const void* value) {
  std::string text = customToString(value);
  return text.empty() ? dumpHex(value, size_) : text;
}

std::string ValuePrinter::customToString(const void* value) const {
  IntrospectionMap::Printer printer = IntrospectionMap::lookup(typeName_);
  return printer == nullptr ? std::string() : std::string(printer(value));
}

std::shared_ptr<ValuePrinter> getValuePrinter(const std::string& typeName, int size) {
  return std::make_shared<ValuePrinter>(typeName, size);
}

}  // namespace Platform

namespace Impl {

void DisplaySubStringBase::addToStream(std::ostream& os, const char* text, unsigned begin,
                                       unsigned end) {
  os.write(text + begin, static_cast<std::streamsize>(end - begin));
}

std::string DisplaySubStringBase::toString(const char* text, unsigned begin, unsigned end) {
  return std::string(text + begin, end - begin);
}

}  // namespace Impl
}  // namespace Tarvo
