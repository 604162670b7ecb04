// The trace registry: settings by exact name and by prefix, and the live handlers they feed.
#include <cstring>
#include <iostream>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"
#include "trace/TraceState.h"

namespace Tarvo::Zel {
namespace {

using ExactMap = std::unordered_map<std::string, DebugControl*>;
// Descending, so that among prefixes of one another the longer comes first and the empty
// prefix last.
using WildcardMap = std::map<std::string, DebugControl*, std::greater<std::string>>;

ExactMap* debugsMap_ = nullptr;
WildcardMap* wildCardDebugsMap_ = nullptr;
HandlerMap* handlerMap_ = nullptr;

bool startsWith(const std::string& name, const std::string& prefix) {
  return name.compare(0, prefix.size(), prefix) == 0;
}

// Applies `fn` to every handler whose name starts with `prefix` and whose levels may change.
template <class Fn>
void forHandlersWithPrefix(const std::string& prefix, Fn fn) {
  HandlerMap& handlers = handlerMap();
  for (auto it = handlers.lower_bound(prefix);
       it != handlers.end() && startsWith(it->first, prefix); ++it) {
    if (!it->second->levelsFixed()) {
      fn(*it->second);
    }
  }
}

template <class Fn>
void forHandlersNamed(const std::string& name, Fn fn) {
  auto [first, last] = handlerMap().equal_range(name);
  for (auto it = first; it != last; ++it) {
    if (!it->second->levelsFixed()) {
      fn(*it->second);
    }
  }
}

uint16_t coveringLevels(const std::string& name) {
  DebugControl* wildcard = DebugControl::findWildcard(name);
  return wildcard != nullptr ? wildcard->levels() : 0;
}

}  // namespace

// ---- handlers ----

HandlerMap& handlerMap() {
  DebugHandler::initialize();
  return *handlerMap_;
}

void DebugHandler::initialize() {
  check(Platform::loco().owns_lock(),
        "Platform::loco().owns_lock() && \"DebugHandler::initialize() no loco\"");
  if (handlerMap_ == nullptr) {
    handlerMap_ = new HandlerMap;
  }
}

DebugHandler::DebugHandler(const std::string& name, int levels, bool levelsFixed,
                           std::atomic<uint32_t>* levelsWord)
    : Platform::DebugHandler(name, static_cast<uint32_t>(levels), levelsFixed, levelsWord) {
  check(Platform::loco().owns_lock(),
        "Platform::loco().owns_lock() && \"DebugHandler::DebugHandler() no loco\"");
  handlerMap().emplace(name, this);
}

DebugHandler::~DebugHandler() {
  Platform::LocoGuard guard;
  auto [first, last] = handlerMap().equal_range(name());
  for (auto it = first; it != last; ++it) {
    if (it->second == this) {
      handlerMap().erase(it);
      break;
    }
  }
}

void DebugHandler::enabledIs(unsigned level, bool on) {
  if (levelsPtr_ != &levels_) {
    debugAndThrowAssertException(nullptr, 0,
                                 "Cannot use this with a non-null levelsPtr passed to constructor",
                                 "Debug", __func__, __LINE__);
  }
  const uint32_t bit = 1u << (level % 32);
  if (on) {
    levels_.fetch_or(bit, std::memory_order_relaxed);
  } else {
    levels_.fetch_and(~bit, std::memory_order_relaxed);
  }
}

// ---- settings ----

std::atomic<bool> DebugControl::showDate_{false};
std::atomic<bool> DebugControl::showTime_{false};
std::atomic<bool> DebugControl::showPid_{false};
std::atomic<bool> DebugControl::showTid_{false};
std::atomic<bool> DebugControl::showHandleName_{false};
std::atomic<bool> DebugControl::showLevel_{false};
std::atomic<bool> DebugControl::showLineInfo_{false};
std::atomic<bool> DebugControl::showFuncName_{false};

void DebugControl::initialize() {
  check(Platform::loco().owns_lock(),
        "Platform::loco().owns_lock() && \"DebugControl::initialize() no loco\"");
  if (debugsMap_ == nullptr) {
    debugsMap_ = new ExactMap;
    wildCardDebugsMap_ = new WildcardMap;
  }
}

DebugControl::DebugControl(const std::string& name, int levels, bool wildcard)
    : name_(name), levels_(static_cast<uint16_t>(levels)), wildcard_(wildcard) {
  check(Platform::loco().owns_lock(),
        "Platform::loco().owns_lock() && \"DebugControl::DebugControl() no loco\"");
  initialize();
  if (wildcard_) {
    (*wildCardDebugsMap_)[name_] = this;
  } else {
    (*debugsMap_)[name_] = this;
  }
}

DebugControl::~DebugControl() {
  if (wildcard_) {
    auto it = wildCardDebugsMap_->find(name_);
    if (it != wildCardDebugsMap_->end() && it->second == this) {
      wildCardDebugsMap_->erase(it);
    }
  } else {
    auto it = debugsMap_->find(name_);
    if (it != debugsMap_->end() && it->second == this) {
      debugsMap_->erase(it);
    }
  }
}

std::string DebugControl::parseName(const std::string& nameSpec, bool& wildcard) {
  wildcard = !nameSpec.empty() && nameSpec.back() == '*';
  return wildcard ? nameSpec.substr(0, nameSpec.size() - 1) : nameSpec;
}

unsigned DebugControl::parseLevels(const std::string& levelsSpec) {
  unsigned mask = 0;
  for (char c : levelsSpec) {
    if (c >= '0' && c <= '9') {
      mask |= 1u << (c - '0');
    } else if (c == '*') {
      mask |= Platform::DebugHandler::kAllLevels;
    }
  }
  return mask;
}

DebugControl* DebugControl::findWildcard(std::string name) {
  check(Platform::loco().owns_lock(),
        "Platform::loco().owns_lock() && \"DebugControl::findWildcard() no loco\"");
  initialize();
  for (auto& [prefix, control] : *wildCardDebugsMap_) {
    if (startsWith(name, prefix)) {
      return control;
    }
  }
  return nullptr;
}

Platform::DebugHandler* DebugControl::get(const std::string& nameSpec, bool) {
  ensureTraceLoaded();
  bool wildcard = false;
  std::string name = parseName(nameSpec, wildcard);
  Platform::LocoGuard guard;
  initialize();
  if (wildcard) {
    std::cerr << "Tarvo::Debug - Warning"
              << " - Wild card specifier ignored getting handler for " << nameSpec << " using "
              << name << std::endl;
  }
  uint16_t levels = 0;
  if (auto exact = debugsMap_->find(name); exact != debugsMap_->end()) {
    levels = exact->second->levels();
  } else {
    levels = coveringLevels(name);
  }
  return new DebugHandler(name, levels, false);
}

void DebugControl::set(const std::string& nameSpec, const std::string& levelsSpec) {
  bool wildcard = false;
  std::string name = parseName(nameSpec, wildcard);
  const uint16_t mask = static_cast<uint16_t>(parseLevels(levelsSpec));
  Platform::LocoGuard guard;
  initialize();
  // The setting of this name and kind with the new levels added; a new one starts from the
  // levels of the prefix setting that covers the name.
  auto settingWithMask = [&](auto& map) {
    if (auto it = map.find(name); it != map.end()) {
      it->second->levels_ |= mask;
      return it->second;
    }
    return new DebugControl(name, coveringLevels(name) | mask, wildcard);
  };
  if (!wildcard) {
    const uint16_t levels = settingWithMask(*debugsMap_)->levels_;
    forHandlersNamed(name, [&](DebugHandler& h) { h.levelsOr(levels); });
    return;
  }
  const uint16_t levels = settingWithMask(*wildCardDebugsMap_)->levels_;
  for (auto& [prefix, control] : *wildCardDebugsMap_) {
    if (startsWith(prefix, name)) {
      control->levels_ |= levels;
    }
  }
  for (auto& [exactName, control] : *debugsMap_) {
    if (startsWith(exactName, name)) {
      control->levels_ |= levels;
    }
  }
  forHandlersWithPrefix(name, [&](DebugHandler& h) { h.levelsOr(levels); });
}

void DebugControl::clear(const std::string& nameSpec, const std::string& levelsSpec) {
  bool wildcard = false;
  std::string name = parseName(nameSpec, wildcard);
  const uint16_t mask = static_cast<uint16_t>(parseLevels(levelsSpec));
  Platform::LocoGuard guard;
  initialize();
  auto clearHandler = [&](DebugHandler& h) { h.levelsClear(mask); };
  if (!wildcard) {
    if (auto it = debugsMap_->find(name); it != debugsMap_->end()) {
      DebugControl* setting = it->second;
      setting->levels_ &= ~mask;
      if (setting->levels_ == 0 && findWildcard(name) == nullptr) {
        delete setting;
      }
    } else if (DebugControl* covering = findWildcard(name)) {
      // Deliberately unowned: the handler stays registered (and listed) for the life of the
      // process, while handlers obtained later under this name still start from the prefix
      // setting, since no exact setting is recorded.
      new DebugHandler(name, covering->levels_ & ~mask, false);
    }
    forHandlersNamed(name, clearHandler);
    return;
  }
  std::vector<DebugControl*> emptied;
  for (auto& [prefix, control] : *wildCardDebugsMap_) {
    if (startsWith(prefix, name)) {
      control->levels_ &= ~mask;
      if (control->levels_ == 0) {
        emptied.push_back(control);
      }
    }
  }
  for (DebugControl* control : emptied) {
    delete control;
  }
  emptied.clear();
  for (auto& [exactName, control] : *debugsMap_) {
    if (startsWith(exactName, name)) {
      control->levels_ &= ~mask;
      if (control->levels_ == 0 && findWildcard(exactName) == nullptr) {
        emptied.push_back(control);
      }
    }
  }
  for (DebugControl* control : emptied) {
    delete control;
  }
  forHandlersWithPrefix(name, clearHandler);
}

void DebugControl::printAll() {
  Platform::LocoGuard guard;
  initialize();
  std::cout << std::endl << "Specific:" << std::endl;
  for (auto& [name, control] : *debugsMap_) {
    std::cout << "    " << displayString(*control) << std::endl;
  }
  std::cout << "Wildcard:" << std::endl;
  for (auto& [prefix, control] : *wildCardDebugsMap_) {
    std::cout << "    " << displayString(*control) << std::endl;
  }
}

}  // namespace Tarvo::Zel

namespace Tarvo::Platform {

DebugHandler* getDebugHandler(const std::string& name) {
  return Zel::DebugControl::get(name, false);
}

void destroyDebugHandler(DebugHandler* handler) {
  LocoGuard guard;
  delete handler;
}

namespace {
// Splits a TRACE-style spec at every ',' and each entry at its first '/', handing each
// (name, levels) pair to `apply` in order. An empty spec yields nothing; an empty entry
// yields an empty name with no levels.
template <class Apply>
void forEachEntry(const std::string& spec, Apply apply) {
  if (spec.empty()) {
    return;
  }
  size_t start = 0;
  while (true) {
    size_t comma = spec.find(',', start);
    std::string entry = spec.substr(start, comma == std::string::npos ? comma : comma - start);
    size_t slash = entry.find('/');
    if (slash == std::string::npos) {
      apply(entry, std::string());
    } else {
      apply(entry.substr(0, slash), entry.substr(slash + 1));
    }
    if (comma == std::string::npos) {
      break;
    }
    start = comma + 1;
  }
}
}  // namespace

void setupTarvoDebug(const char* spec) {
  Zel::ensureTraceLoaded();
  {
    LocoGuard guard;
    Zel::applyTraceFile();
  }
  if (spec == nullptr) {
    spec = std::getenv("TRACE");
    if (spec == nullptr) {
      return;
    }
  }
  forEachEntry(spec, &Zel::DebugControl::set);
}

void clearTarvoDebug(const char* spec) {
  Zel::ensureTraceLoaded();
  if (spec == nullptr) {
    debugAndThrowAssertException(nullptr, 0, "clearTarvoDebug() needs a spec", "Debug", __func__,
                                 __LINE__);
  }
  LocoGuard guard;
  forEachEntry(spec, &Zel::DebugControl::clear);
}

}  // namespace Tarvo::Platform
