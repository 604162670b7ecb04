// Trace lines: the prefix fields, the trace file, the registry listing and the start-up.
#include <sys/time.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Platform.h"
#include "trace/TraceState.h"

namespace Tarvo::Zel {
namespace {

// Never freed: handlers may trace from static destructors.
std::ofstream* traceFile_ = nullptr;
std::string* traceFileName_ = nullptr;

struct Field {
  const char* word;
  std::atomic<bool>* flag;
};

const Field kFields[] = {
    {"date", &DebugControl::showDate_},
    {"time", &DebugControl::showTime_},
    {"pid", &DebugControl::showPid_},
    {"tid", &DebugControl::showTid_},
    {"handle", &DebugControl::showHandleName_},
    {"level", &DebugControl::showLevel_},
    {"line-info", &DebugControl::showLineInfo_},
    {"func-name", &DebugControl::showFuncName_},
};
constexpr size_t kFieldCount = sizeof(kFields) / sizeof(kFields[0]);

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// The module's own start-up, run when the library is loaded (and earlier if another
// module's static initialiser reaches the registry first).
const bool traceLoadedAtStartup = (ensureTraceLoaded(), true);

}  // namespace

void ensureTraceLoaded() {
  static std::atomic<bool> loaded{false};
  if (loaded.load(std::memory_order_acquire)) {
    return;
  }
  Platform::LocoGuard guard;
  if (loaded.load(std::memory_order_relaxed)) {
    return;
  }
  // Set first: the settings below re-enter the public entry points, which call back here.
  loaded.store(true, std::memory_order_release);
  traceFileName_ = new std::string;
  traceFile_ = new std::ofstream;
  Platform::setupTarvoDebug("Tarvo*/01");
  Platform::setupTarvoDebug(nullptr);
  Platform::setTraceFormat("date,time,tid,handle,level");
  Platform::setTraceFormat(nullptr);
}

void applyTraceFile() {
  const char* wanted = std::getenv("TRACEFILE");
  if (wanted != nullptr && !traceFileName_->empty() && *traceFileName_ == wanted) {
    return;
  }
  traceFile_->close();
  traceFileName_->clear();
  if (wanted == nullptr) {
    return;
  }
  *traceFileName_ = wanted;
  traceFile_->open(wanted, std::ios::out | std::ios::trunc);
  if (traceFile_->is_open()) {
    traceFile_->clear();
    return;
  }
  std::cerr << "Error opening TRACEFILE=" << wanted << "\n"
            << "Defaulting to std::cerr for trace output." << std::endl;
  traceFileName_->clear();
}

std::string levelsText(uint32_t mask, bool all) {
  if (all) {
    return "*";
  }
  std::string text;
  for (unsigned level = 0; level < 32; ++level) {
    if ((mask >> level) & 1u) {
      text += std::to_string(level);
    }
  }
  return text;
}

void DebugHandler::dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
                        const char* function) {
  // Built in a plain string rather than a stream: this runs for every enabled line.
  std::string text;
  text.reserve(128);
  auto appendNumber = [&text](long value) {
    char digits[24];
    auto [end, ec] = std::to_chars(digits, digits + sizeof digits, value);
    text.append(digits, end);
    text += ' ';
  };
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  const bool haveTime = localtime_r(&now.tv_sec, &local) != nullptr;
  char buffer[64];
  if (haveTime && DebugControl::showDate_.load(std::memory_order_relaxed)) {
    text.append(buffer, std::strftime(buffer, sizeof buffer, "%Y-%m-%d ", &local));
  }
  if (haveTime && DebugControl::showTime_.load(std::memory_order_relaxed)) {
    text.append(buffer, std::strftime(buffer, sizeof buffer, "%H:%M:%S", &local));
    text += '.';
    appendNumber(now.tv_usec);  // deliberately not zero-padded
  }
  if (DebugControl::showPid_.load(std::memory_order_relaxed)) {
    appendNumber(getpid());
  }
  if (DebugControl::showTid_.load(std::memory_order_relaxed)) {
    appendNumber(Platform::gettid());
  }
  if (DebugControl::showHandleName_.load(std::memory_order_relaxed)) {
    text += name();
    text += ' ';
  }
  if (DebugControl::showLevel_.load(std::memory_order_relaxed)) {
    appendNumber(level);
  }
  // A missing file or function ends the line at that field, as streaming a null string
  // into the line would: nothing further, not even the message, is appended.
  bool failed = false;
  if (DebugControl::showLineInfo_.load(std::memory_order_relaxed)) {
    if (file == nullptr) {
      failed = true;
    } else {
      text += baseName(file);
      text += ':';
      appendNumber(line);
    }
  }
  if (!failed && DebugControl::showFuncName_.load(std::memory_order_relaxed)) {
    if (function == nullptr) {
      failed = true;
    } else {
      text += function;
      text += ' ';
    }
  }
  if (!failed) {
    text += stream.view();
  }
  text += '\n';

  Platform::LocoGuard guard;
  if (traceFile_->is_open()) {
    traceFile_->write(text.data(), static_cast<std::streamsize>(text.size()));
    traceFile_->flush();
    if (traceFile_->good()) {
      return;
    }
    // The file system is full or failing: this line and every later one go to the standard
    // error stream rather than nowhere.
    std::cerr << "Error writing TRACEFILE=" << *traceFileName_ << "\n"
              << "Defaulting to std::cerr for trace output." << std::endl;
    traceFile_->close();
    traceFileName_->clear();
  }
  std::cerr.write(text.data(), static_cast<std::streamsize>(text.size()));
  std::cerr.flush();
}

std::string DebugHandler::displayString(const DebugHandler& handler) {
  std::string text = handler.name();
  if (handler.levelsFixed()) {
    text += "+";
  }
  text += "/";
  text += levelsText(handler.levelMask(), handler.levels_.load(std::memory_order_relaxed) ==
                                              Platform::DebugHandler::kAllLevels);
  return text;
}

void DebugHandler::printAll() {
  std::cout << "Handlers:" << std::endl;
  Platform::LocoGuard guard;
  for (auto& [name, handler] : handlerMap()) {
    std::cout << "    " << displayString(*handler) << std::endl;
  }
}

std::string DebugControl::displayString(const DebugControl& control) {
  std::string text = control.name();
  if (control.wildcard()) {
    text += "*";
  }
  text += "/";
  text += levelsText(control.levels(), control.levels() == Platform::DebugHandler::kAllLevels);
  return text;
}

}  // namespace Tarvo::Zel

namespace Tarvo::Platform {

void setTraceFormat(const char* spec) {
  Zel::ensureTraceLoaded();
  if (spec == nullptr) {
    spec = std::getenv("TRACEFORMAT");
    if (spec == nullptr) {
      return;
    }
  }
  const std::string text(spec);
  if (text == "help") {
    std::cerr << "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n";
    for (const auto& field : Zel::kFields) {
      std::cerr << "  " << field.word << "\n";
    }
    std::cerr << std::flush;
    return;
  }
  bool chosen[Zel::kFieldCount] = {};
  std::istringstream items(text);
  std::string item;
  while (std::getline(items, item, ',')) {
    if (item.empty()) {
      continue;
    }
    size_t i = 0;
    while (i < Zel::kFieldCount && item != Zel::kFields[i].word) {
      ++i;
    }
    if (i == Zel::kFieldCount) {
      std::cerr << item << " is an invalid field in TRACEFORMAT\n"
                << "Set TRACEFORMAT=help for more information." << std::endl;
      return;
    }
    chosen[i] = true;
  }
  LocoGuard guard;
  for (size_t i = 0; i < Zel::kFieldCount; ++i) {
    Zel::kFields[i].flag->store(chosen[i], std::memory_order_relaxed);
  }
}

void clearTraceFormat() {
  Zel::ensureTraceLoaded();
  LocoGuard guard;
  for (const auto& field : Zel::kFields) {
    field.flag->store(false, std::memory_order_relaxed);
  }
}

void printAllTraceFormat() {
  Zel::ensureTraceLoaded();
  LocoGuard guard;
  for (size_t i = 0; i < Zel::kFieldCount; ++i) {
    std::cout << (i ? " " : "") << (Zel::kFields[i].flag->load() ? 1 : 0);
  }
  std::cout << std::endl;
}

void dumpTarvoDebugMap() {
  Zel::ensureTraceLoaded();
  Zel::DebugControl::printAll();
  Zel::DebugHandler::printAll();
}

}  // namespace Tarvo::Platform

namespace Tarvo::Impl {

DebugHolder::DebugHolder(const std::string& name)
    : handler_(Platform::getDebugHandler(name)), owned_(true) {}

DebugHolder::DebugHolder(const DebugHolder& other) : handler_(other.handler_), owned_(false) {
  if (other.owned_ && other.handler_ != nullptr) {
    handler_ = Platform::getDebugHandler(other.handler_->name());
    owned_ = true;
  }
}

DebugHolder& DebugHolder::operator=(const DebugHolder& other) {
  if (this != &other) {
    release();
    handler_ = other.handler_;
    owned_ = false;
    if (other.owned_ && other.handler_ != nullptr) {
      handler_ = Platform::getDebugHandler(other.handler_->name());
      owned_ = true;
    }
  }
  return *this;
}

DebugHolder::~DebugHolder() {
  release();
}

void DebugHolder::release() {
  if (owned_ && handler_ != nullptr) {
    Platform::destroyDebugHandler(handler_);
  }
  handler_ = nullptr;
  owned_ = false;
}

}  // namespace Tarvo::Impl
