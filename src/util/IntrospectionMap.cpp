#include "Tarvo/IntrospectionMap.h"

#include <unordered_map>

#include "Tarvo/Platform.h"

namespace Tarvo {
namespace {

// Guarded by the library lock; built on first use, so static objects may register printers.
std::unordered_map<std::string, IntrospectionMap::Printer>& table() {
  static std::unordered_map<std::string, IntrospectionMap::Printer> printers;
  return printers;
}

}  // namespace

void IntrospectionMap::insert(const std::string& typeName, Printer printer) {
  Platform::LocoGuard guard;
  table()[typeName] = printer;
}

IntrospectionMap::Printer IntrospectionMap::lookup(const std::string& typeName) {
  Platform::LocoGuard guard;
  auto it = table().find(typeName);
  return it == table().end() ? nullptr : it->second;
}

}  // namespace Tarvo
