// clang 14 lacks the builtin that libstdc++'s <source_location> is built on, so with that
// pairing the header declares nothing. The fuzz build force-includes this file: when the
// standard type is missing it supplies one with the same interface from the builtins clang 14
// does have. Nothing outside the fuzz build sees it.
#pragma once

#include <source_location>

#if !defined(__cpp_lib_source_location)
#include <cstdint>

namespace std {

struct source_location {
  static constexpr source_location current(const char* file = __builtin_FILE(),
                                           const char* function = __builtin_FUNCTION(),
                                           uint_least32_t line = __builtin_LINE(),
                                           uint_least32_t column = __builtin_COLUMN()) noexcept {
    source_location where;
    where.file_ = file;
    where.function_ = function;
    where.line_ = line;
    where.column_ = column;
    return where;
  }
  constexpr source_location() noexcept = default;
  constexpr const char* file_name() const noexcept { return file_; }
  constexpr const char* function_name() const noexcept { return function_; }
  constexpr uint_least32_t line() const noexcept { return line_; }
  constexpr uint_least32_t column() const noexcept { return column_; }

 private:
  const char* file_ = "";
  const char* function_ = "";
  uint_least32_t line_ = 0;
  uint_least32_t column_ = 0;
};

}  // namespace std
#endif
