// Exceptions, backtraces and the library's two kinds of checks.
//
// Every Tarvo exception records a backtrace of the throwing thread when it is constructed;
// the backtrace is symbolised only when what() is first called. Programming errors that a
// caller can recover from are thrown as AssertException through debugAndThrowAssertException;
// impossibilities inside the library end the process through Tarvo::fatal / Tarvo::check.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <source_location>
#include <string>
#include <string_view>

namespace Tarvo {

namespace Platform {
class DebugHandler;
class DebugStream;
}  // namespace Platform

// A captured call stack: up to kMaxFrames return addresses of the capturing thread.
class Backtrace {
 public:
  // The most frames a backtrace holds.
  static constexpr unsigned kMaxFrames = 100;

  // Captures the calling thread's stack when `capture` is true; otherwise stays empty.
  explicit Backtrace(bool capture);

  // Stores up to `max` return addresses in `frames`, innermost first, starting with the
  // caller of the code that asked for the backtrace. Returns how many were stored; 0 when
  // the stack cannot be unwound.
  static unsigned unwind(void** frames, unsigned max);

  // One line per frame: object file, "(symbol+0xoffset)" with the symbol demangled where
  // known, then "[address]". "No backtrace available\n" when nothing was captured.
  std::string pretty() const;

  // The number of frames captured, and frame `i` of them (innermost first).
  unsigned count() const { return count_; }
  void* frame(unsigned i) const { return frames_[i]; }

 private:
  void* frames_[kMaxFrames];
  unsigned count_ = 0;
};

// Root of the library's exceptions. what() is "<name>(\"<message>\")\nBacktrace:\n<frames>",
// the parenthesised part left out when the message is empty. The text is built on the first
// what(), which any number of threads may call at once (one text wins, the others are
// dropped); a copy of the exception builds its own.
class Exception : public std::exception {
 public:
  // An exception with `message`, capturing the calling thread's stack when `backtrace`.
  Exception(std::string message, bool backtrace);
  // Copies the message and backtrace; the copy builds its own what() text.
  Exception(const Exception& other);
  Exception& operator=(const Exception& other);
  ~Exception() override;

  // The text described above, built on the first call.
  const char* what() const noexcept override;
  // The qualified class name, "Tarvo::Exception" here and each derived class's own.
  virtual const char* name() const { return "Tarvo::Exception"; }

  // The message and the backtrace given at construction.
  const std::string& message() const { return message_; }
  const Backtrace& backtrace() const { return backtrace_; }

  // Throws an exception of this class with `message`.
  [[noreturn]] static void throwException(const std::string& message);

 private:
  Backtrace backtrace_;
  std::string message_;
  // Owned; null until the first what().
  mutable std::atomic<const std::string*> what_{nullptr};
};

// Declares an exception class: the constructor from a message (with a backtrace), name(), and
// throwException(message).
#define TARVO_DECLARE_EXCEPTION_(Class, Base)                                       \
  class Class : public Base {                                                       \
   public:                                                                          \
    explicit Class(const std::string& message) : Base(message, true) {}             \
    const char* name() const override { return "Tarvo::" #Class; }                  \
    [[noreturn]] static void throwException(const std::string& message);            \
                                                                                    \
   protected:                                                                       \
    Class(const std::string& message, bool backtrace) : Base(message, backtrace) {} \
  }

// A check on the caller's use of the library failed (thrown, never ends the process).
TARVO_DECLARE_EXCEPTION_(AssertException, Exception);
TARVO_DECLARE_EXCEPTION_(MemoryResourceException, Exception);
TARVO_DECLARE_EXCEPTION_(NoPermissionException, Exception);
TARVO_DECLARE_EXCEPTION_(UnimplementedException, Exception);
TARVO_DECLARE_EXCEPTION_(InvalidInitializeException, Exception);
// An operation failed at run time and the caller cannot go on as planned.
TARVO_DECLARE_EXCEPTION_(RuntimeException, Exception);
TARVO_DECLARE_EXCEPTION_(OutOfRangeException, Exception);
TARVO_DECLARE_EXCEPTION_(CorruptionDetectedException, Exception);
// Also caught as CorruptionDetectedException.
TARVO_DECLARE_EXCEPTION_(InvalidSizeException, CorruptionDetectedException);

#undef TARVO_DECLARE_EXCEPTION_

// Throws AssertException with the text "<file>:<function>:<line>: <message>" (the file
// left out when `file` is null; the colon stays). When `handler` is given and `level` is enabled on
// it, the same text is traced first.
[[noreturn]] void debugAndThrowAssertException(Platform::DebugHandler* handler, unsigned level,
                                               Platform::DebugStream& stream, const char* file,
                                               const char* function, int line);
[[noreturn]] void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                               Platform::DebugStream& stream, const char* file,
                                               const char* function, int line);
// Convenience form for a message that is already a string.
[[noreturn]] void debugAndThrowAssertException(Platform::DebugHandler* handler, unsigned level,
                                               std::string_view message, const char* file,
                                               const char* function, int line);

// The aborting check. Writes "<file>:<function>:<line>: <message>" to the standard error
// stream and calls abort(). Used for states the library cannot survive (corrupted lists,
// a task destroyed while it runs, a scheduler touched from a foreign thread).
[[noreturn]] void fatal(std::string_view message,
                        std::source_location where = std::source_location::current());

// Ends the process through fatal() unless `ok` holds. Costs one branch when it holds.
inline void check(bool ok, std::string_view message,
                  std::source_location where = std::source_location::current()) {
  if (!ok) [[unlikely]] {
    fatal(message, where);
  }
}

}  // namespace Tarvo
