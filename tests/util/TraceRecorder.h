// A trace handler for tests that keeps every line it is given, with its level, so that a test
// can check which messages an operation traced and at which level.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Tarvo/Debug.h"

namespace Tarvo::Test {

class TraceRecorder : public Platform::DebugHandler {
 public:
  explicit TraceRecorder(uint32_t levels = kAllLevels)
      : DebugHandler("TraceRecorder", levels, false) {}

  void enabledIs(unsigned level, bool on) override {
    if (on) {
      levels_.fetch_or(1u << level);
    } else {
      levels_.fetch_and(~(1u << level));
    }
  }
  void dump(Platform::DebugStream& stream, unsigned level, const char*, int, const char*) override {
    lines_.emplace_back(level, stream.str());
  }

  // Whether a line traced at `level` contains `text`.
  bool has(unsigned level, const std::string& text) const {
    for (const auto& [lineLevel, line] : lines_) {
      if (lineLevel == level && line.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }
  // Whether any line, at any level, contains `text`.
  bool hasAnyLevel(const std::string& text) const {
    for (const auto& entry : lines_) {
      if (entry.second.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }
  const std::vector<std::pair<unsigned, std::string>>& lines() const { return lines_; }
  void clear() { lines_.clear(); }

 private:
  std::vector<std::pair<unsigned, std::string>> lines_;
};

}  // namespace Tarvo::Test
