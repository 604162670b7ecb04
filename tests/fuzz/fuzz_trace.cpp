// TRACE entries: setupTarvoDebug() must accept any text, and afterwards every "name/levels"
// entry's levels are on for handlers of that name (settings only add levels). Clearing the
// same names with every level must leave an uncovered name with no level on.
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Tarvo/Debug.h"
#include "Tarvo/Platform.h"

namespace {

struct Entry {
  std::string name;
  std::string levels;
};

std::vector<Entry> entriesOf(const std::string& spec) {
  std::vector<Entry> entries;
  size_t start = 0;
  while (!spec.empty()) {
    size_t comma = spec.find(',', start);
    std::string entry = spec.substr(start, comma == std::string::npos ? comma : comma - start);
    size_t slash = entry.find('/');
    entries.push_back(slash == std::string::npos
                          ? Entry{entry, ""}
                          : Entry{entry.substr(0, slash), entry.substr(slash + 1)});
    if (comma == std::string::npos) {
      break;
    }
    start = comma + 1;
  }
  return entries;
}

uint32_t expectedMask(const std::string& levels) {
  uint32_t mask = 0;
  for (char c : levels) {
    if (c >= '0' && c <= '9') {
      mask |= 1u << (c - '0');
    } else if (c == '*') {
      mask |= Tarvo::Platform::DebugHandler::kAllLevels;
    }
  }
  return mask;
}

// The handler name an entry's setting covers: the name itself, or one under a prefix.
std::string coveredName(const std::string& name) {
  return !name.empty() && name.back() == '*' ? name.substr(0, name.size() - 1) + "~" : name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string spec(reinterpret_cast<const char*>(data), size);
  if (spec.find('\0') != std::string::npos) {
    return 0;  // an environment variable cannot hold one
  }
  using namespace Tarvo::Platform;
  setupTarvoDebug(spec.c_str());
  std::string clearSpec;
  for (const Entry& entry : entriesOf(spec)) {
    std::string name = coveredName(entry.name);
    clearSpec += entry.name + "/*,";
    if (!name.empty() && name.back() == '*') {
      continue;  // asking for such a name warns and strips the '*'
    }
    DebugHandler* handler = getDebugHandler(name);
    uint32_t wanted = expectedMask(entry.levels);
    TARVO_CHECK((handler->levelMask() & wanted) == wanted);
    destroyDebugHandler(handler);
  }
  clearTarvoDebug(clearSpec.c_str());
  for (const Entry& entry : entriesOf(spec)) {
    std::string name = coveredName(entry.name);
    if (!name.empty() && name.back() == '*') {
      continue;
    }
    LocoGuard guard;
    if (Tarvo::Zel::DebugControl::findWildcard(name) == nullptr) {
      DebugHandler* handler = getDebugHandler(name);
      TARVO_CHECK(handler->levelMask() == 0);
      destroyDebugHandler(handler);
    }
  }
  return 0;
}
