#include "Tarvo/Exception.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "Tarvo/Debug.h"

namespace Tarvo {

Exception::Exception(std::string message, bool backtrace)
    : backtrace_(backtrace), message_(std::move(message)) {}

Exception::Exception(const Exception& other)
    : std::exception(other), backtrace_(other.backtrace_), message_(other.message_) {}

Exception& Exception::operator=(const Exception& other) {
  if (this != &other) {
    backtrace_ = other.backtrace_;
    message_ = other.message_;
    std::unique_ptr<const std::string> dropped(what_.exchange(nullptr));
  }
  return *this;
}

Exception::~Exception() {
  std::unique_ptr<const std::string> owned(what_.load(std::memory_order_relaxed));
}

const char* Exception::what() const noexcept {
  const std::string* text = what_.load(std::memory_order_acquire);
  if (text == nullptr) {
    auto built = std::make_unique<std::string>(name());
    if (!message_.empty()) {
      *built += "(\"" + message_ + "\")";
    }
    *built += "\nBacktrace:\n";
    *built += backtrace_.pretty();
    if (what_.compare_exchange_strong(text, built.get(), std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
      text = built.release();
    }
  }
  return text->c_str();
}

void Exception::throwException(const std::string& message) {
  throw Exception(message, true);
}

void AssertException::throwException(const std::string& message) {
  throw AssertException(message);
}
void MemoryResourceException::throwException(const std::string& message) {
  throw MemoryResourceException(message);
}
void NoPermissionException::throwException(const std::string& message) {
  throw NoPermissionException(message);
}
void UnimplementedException::throwException(const std::string& message) {
  throw UnimplementedException(message);
}
void InvalidInitializeException::throwException(const std::string& message) {
  throw InvalidInitializeException(message);
}
void RuntimeException::throwException(const std::string& message) {
  throw RuntimeException(message);
}
void OutOfRangeException::throwException(const std::string& message) {
  throw OutOfRangeException(message);
}
void CorruptionDetectedException::throwException(const std::string& message) {
  throw CorruptionDetectedException(message);
}
void InvalidSizeException::throwException(const std::string& message) {
  throw InvalidSizeException(message);
}

void debugAndThrowAssertException(Platform::DebugHandler* handler, unsigned level,
                                  std::string_view message, const char* file, const char* function,
                                  int line) {
  std::string text;
  if (file != nullptr) {
    text += file;
  }
  text += ":";
  text += function != nullptr ? function : "";
  text += ":" + std::to_string(line) + ": ";
  text += message;
  if (handler != nullptr && handler->enabled(level)) {
    Platform::DebugStream traced;
    traced << text;
    handler->dump(traced, level, file, line, function);
  }
  AssertException::throwException(text);
}

void debugAndThrowAssertException(Platform::DebugHandler* handler, unsigned level,
                                  Platform::DebugStream& stream, const char* file,
                                  const char* function, int line) {
  debugAndThrowAssertException(handler, level, stream.str(), file, function, line);
}

void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                  Platform::DebugStream& stream, const char* file,
                                  const char* function, int line) {
  debugAndThrowAssertException(&handler, level, stream.str(), file, function, line);
}

void fatal(std::string_view message, std::source_location where) {
  std::string_view file = where.file_name();
  if (auto slash = file.rfind('/'); slash != std::string_view::npos) {
    file.remove_prefix(slash + 1);
  }
  std::string text;
  text.append(file).append(":").append(where.function_name()).append(":");
  text.append(std::to_string(where.line())).append(": ").append(message).append("\n");
  // write(2) rather than a stream: the process may be in a state where streams are unusable.
  ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
  (void)ignored;
  std::abort();
}

}  // namespace Tarvo
