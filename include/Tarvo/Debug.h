// Named trace handlers, the trace registry and the TARVO_TRACE statement.
//
// Every module traces through a named handler that carries a mask of ten levels (0 to 9;
// low numbers for failures and important changes, higher ones for detail). The masks are set
// by a process-wide registry configured from the environment at load time:
//
//   TRACE        comma-separated "name/levels" entries, applied on top of the library's own
//                default "Tarvo*/01". A trailing '*' makes the name a prefix ("Tarvo*", or "*"
//                for every handler); levels are digits, or '*' for all ten. Settings only add
//                levels; clearTarvoDebug() removes them.      TRACE='TaskScheduler/5,Tarvo*/2'
//   TRACEFORMAT  the fields that start each line, in a fixed order whatever the list order:
//                date,time,pid,tid,handle,level,line-info,func-name. Default
//                "date,time,tid,handle,level"; "help" lists the fields.   TRACEFORMAT=time,level
//   TRACEFILE    a file that receives the lines instead of the standard error stream; it is
//                truncated when opened.                        TRACEFILE=/tmp/agent.trace
//
// A trace statement whose level is off costs one load and one bit test and evaluates none of
// its message operands:
//
//   Tarvo::Platform::DebugHandler* h = Tarvo::Platform::getDebugHandler("MyAgent");
//   TARVO_TRACE(h, 1, "connected to " << peer << " after " << tries << " tries");
//   Tarvo::Platform::destroyDebugHandler(h);
//
// Each enabled statement writes exactly one whole line under the library lock, so lines of
// different threads never interleave. The registry is thread-safe; handler masks are read
// without a lock, so a statement racing with a change sees the old or the new mask.
#pragma once

#include <atomic>
#include <cstdint>
#include <sstream>
#include <string>

namespace Tarvo {
namespace Platform {

// The stream a trace message is built on; created on the statement's stack.
class DebugStream : public std::stringstream {};

// A named level mask and the place its lines go. Obtain one with getDebugHandler() and
// release it with destroyDebugHandler(), or hold it through Debuggable / DebugSupport.
class DebugHandler {
 public:
  // Ten levels, 0 to 9, and the mask with all of them on.
  static constexpr unsigned kLevelCount = 10;
  static constexpr uint32_t kAllLevels = 0x3ff;

  virtual ~DebugHandler() = default;
  DebugHandler(const DebugHandler&) = delete;
  DebugHandler& operator=(const DebugHandler&) = delete;

  // Sets (on) or clears (off) bit `level % 32` of the handler's own mask. A handler built
  // on an external mask word refuses with AssertException.
  virtual void enabledIs(unsigned level, bool on) = 0;

  // Writes one formatted line holding the content of `stream`. Called by TARVO_TRACE once
  // `level` is known to be enabled.
  virtual void dump(DebugStream& stream, unsigned level, const char* file, int line,
                    const char* function) = 0;

  // The trace test: one relaxed load of the mask word and one bit test, no call, no lock.
  bool enabled(unsigned level) const noexcept {
    return (levelsPtr_->load(std::memory_order_relaxed) >> level) & 1u;
  }
  uint32_t levelMask() const noexcept { return levelsPtr_->load(std::memory_order_relaxed); }
  const std::string& name() const noexcept { return name_; }
  bool levelsFixed() const noexcept { return levelsFixed_; }

 protected:
  // `levelsWord` lets several handlers share one externally owned mask; when null the
  // handler tests its own mask.
  DebugHandler(std::string name, uint32_t levels, bool levelsFixed,
               std::atomic<uint32_t>* levelsWord = nullptr)
      : levels_(levels),
        levelsPtr_(levelsWord ? levelsWord : &levels_),
        name_(std::move(name)),
        levelsFixed_(levelsFixed) {}

  std::atomic<uint32_t> levels_;
  std::atomic<uint32_t>* levelsPtr_;
  std::string name_;
  bool levelsFixed_;
};

// A new handler whose mask starts from the registry's setting for `name` (an exact setting,
// else the longest matching prefix setting, else no levels). A trailing '*' in `name` is
// ignored with a warning on the standard error stream. Release it with destroyDebugHandler.
DebugHandler* getDebugHandler(const std::string& name);
// Deletes a handler obtained from getDebugHandler; null is accepted.
void destroyDebugHandler(DebugHandler* handler);

// Adds the levels of a TRACE-style spec to the registry and to every live handler it names.
// Null means the TRACE environment variable (nothing when unset). Also (re)opens TRACEFILE.
void setupTarvoDebug(const char* spec);
// Removes the levels of a TRACE-style spec (never null) from the registry and live handlers;
// settings left with no levels and no covering prefix are deleted.
void clearTarvoDebug(const char* spec);
// Prints every setting ("Specific:", "Wildcard:") and every live handler ("Handlers:") on the
// standard output stream.
void dumpTarvoDebugMap();

// Selects the line prefix fields from a TRACEFORMAT-style list; null means the TRACEFORMAT
// environment variable (nothing when unset). An unknown field is reported on the standard
// error stream and changes nothing; "help" prints the field list.
void setTraceFormat(const char* spec);
// Turns every prefix field off: lines are the message alone.
void clearTraceFormat();
// Prints the eight field flags as 0/1 on the standard output stream, in field order.
void printAllTraceFormat();

// Lets TARVO_TRACE take a handler by pointer or by reference.
inline DebugHandler& traceTarget(DebugHandler* handler) noexcept {
  return *handler;
}
inline DebugHandler& traceTarget(DebugHandler& handler) noexcept {
  return handler;
}

}  // namespace Platform

namespace Zel {

// The registry's handler. Registers itself in handlerMap_ on construction and removes
// itself on destruction; both need the library lock.
class DebugHandler final : public Platform::DebugHandler {
 public:
  DebugHandler(const std::string& name, int levels, bool levelsFixed,
               std::atomic<uint32_t>* levelsWord = nullptr);
  ~DebugHandler() override;

  void enabledIs(unsigned level, bool on) override;
  void dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
            const char* function) override;

  static void initialize();
  // "<name>[+]/<levels>", levels as ascending digits or "*" for all ten.
  static std::string displayString(const DebugHandler& handler);
  static void printAll();

 private:
  friend class DebugControl;
  void levelsOr(uint32_t mask) { levels_.fetch_or(mask, std::memory_order_relaxed); }
  void levelsClear(uint32_t mask) { levels_.fetch_and(~mask, std::memory_order_relaxed); }
};

// One setting of the registry: an exact name or a prefix (wildcard) with a level mask.
class DebugControl {
 public:
  DebugControl(const std::string& name, int levels, bool wildcard);
  ~DebugControl();
  DebugControl(const DebugControl&) = delete;
  DebugControl& operator=(const DebugControl&) = delete;

  const std::string& name() const { return name_; }
  uint16_t levels() const { return levels_; }
  bool wildcard() const { return wildcard_; }

  static Platform::DebugHandler* get(const std::string& nameSpec, bool unused);
  static void set(const std::string& nameSpec, const std::string& levelsSpec);
  static void clear(const std::string& nameSpec, const std::string& levelsSpec);

  // Strips one trailing '*' (setting `wildcard`) from a name spec.
  static std::string parseName(const std::string& nameSpec, bool& wildcard);
  // Digits set their level, '*' sets all ten, anything else is ignored.
  static unsigned parseLevels(const std::string& levelsSpec);
  // The setting of the longest prefix of `name`, or null. Needs the library lock.
  static DebugControl* findWildcard(std::string name);
  static void initialize();
  // "<name>[*]/<levels>", levels as ascending digits or "*" for all ten.
  static std::string displayString(const DebugControl& control);
  static void printAll();

  // Line prefix fields, in the order they are printed.
  static std::atomic<bool> showDate_;
  static std::atomic<bool> showTime_;
  static std::atomic<bool> showPid_;
  static std::atomic<bool> showTid_;
  static std::atomic<bool> showHandleName_;
  static std::atomic<bool> showLevel_;
  static std::atomic<bool> showLineInfo_;
  static std::atomic<bool> showFuncName_;

 private:
  std::string name_;
  uint16_t levels_;
  bool wildcard_;
};

}  // namespace Zel

namespace Impl {
// Shared body of Debuggable and DebugSupport: a handler pointer and whether it is owned.
class DebugHolder {
 public:
  // Holds (and owns) the registry's handler of that name.
  explicit DebugHolder(const std::string& name);
  // Uses `handler` without owning it.
  explicit DebugHolder(Platform::DebugHandler& handler) : handler_(&handler), owned_(false) {}
  // A copy owns a handler of its own of the same name when the original owns one.
  DebugHolder(const DebugHolder& other);
  DebugHolder& operator=(const DebugHolder& other);
  virtual ~DebugHolder();

  // The handler, and whether this holder releases it.
  Platform::DebugHandler* debugHandler() const { return handler_; }
  bool debugHandlerOwned() const { return owned_; }

 private:
  void release();
  Platform::DebugHandler* handler_;
  bool owned_;
};
}  // namespace Impl

// Base for classes that trace: constructed from a name it owns a fresh handler; from a
// handler it shares that one. Copies of an owning holder get a fresh handler of the same name.
class Debuggable : public Impl::DebugHolder {
  using DebugHolder::DebugHolder;
};

// The same, for classes that hold their handler as a member.
class DebugSupport : public Impl::DebugHolder {
  using DebugHolder::DebugHolder;
};

}  // namespace Tarvo

// Traces `message` (a stream expression such as `"x=" << x`) on `handler` (pointer or
// reference) at `level`. When the level is off, nothing of `message` is evaluated.
#define TARVO_TRACE(handler, level, message)                                                       \
  do {                                                                                             \
    ::Tarvo::Platform::DebugHandler& tarvoTraceHandler_ = ::Tarvo::Platform::traceTarget(handler); \
    if (tarvoTraceHandler_.enabled(level)) [[unlikely]] {                                          \
      ::Tarvo::Platform::DebugStream tarvoTraceStream_;                                            \
      tarvoTraceStream_ << message;                                                                \
      tarvoTraceHandler_.dump(tarvoTraceStream_, (level), __FILE__, __LINE__, __func__);           \
    }                                                                                              \
  } while (0)
