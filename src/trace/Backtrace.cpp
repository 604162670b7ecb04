#define UNW_LOCAL_ONLY
#include <cxxabi.h>
#include <dlfcn.h>
#include <libunwind.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "Tarvo/Exception.h"

namespace Tarvo {

Backtrace::Backtrace(bool capture) {
  if (capture) {
    count_ = unwind(frames_, kMaxFrames);
  }
}

// Kept out of line so that the frame it unwinds from is its own; the first address stored
// is then that of its caller.
__attribute__((noinline)) unsigned Backtrace::unwind(void** frames, unsigned max) {
  unw_context_t context;
  unw_cursor_t cursor;
  if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) {
    return 0;
  }
  unsigned stored = 0;
  while (stored < max && unw_step(&cursor) > 0) {
    unw_word_t ip = 0;
    unw_get_reg(&cursor, UNW_REG_IP, &ip);
    frames[stored++] = reinterpret_cast<void*>(ip);
  }
  return stored;
}

namespace {

// libunwind sets up its process-wide state on the first unwind, writing globals that later
// unwinds read without a lock. Doing that once at load, before the program starts threads,
// keeps two threads' first exceptions from racing on it.
const bool unwinderReady = Backtrace(true).count() > 0;

std::string demangle(const char* symbol) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> plain(
      abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
  return status == 0 && plain ? std::string(plain.get()) : std::string(symbol);
}
}  // namespace

std::string Backtrace::pretty() const {
  if (count_ == 0) {
    return "No backtrace available\n";
  }
  std::ostringstream out;
  for (unsigned i = 0; i < count_; ++i) {
    void* address = frames_[i];
    Dl_info info;
    if (dladdr(address, &info) != 0) {
      if (info.dli_fname != nullptr) {
        out << info.dli_fname;
      }
      if (info.dli_sname != nullptr) {
        out << "(" << demangle(info.dli_sname) << "+0x" << std::hex
            << (static_cast<char*>(address) - static_cast<char*>(info.dli_saddr)) << std::dec
            << ")";
      }
      out << " ";
    }
    out << "[" << address << "]\n";
  }
  return out.str();
}

}  // namespace Tarvo
