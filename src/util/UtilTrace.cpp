#include "util/UtilTrace.h"

namespace Tarvo::Util::Impl {

Platform::DebugHandler& utilTrace() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("TarvoUtil");
  return *handler;
}

namespace {
// Registers the handler at load time, so that it is listed with the library's handlers even
// before the first utility call.
[[maybe_unused]] Platform::DebugHandler& registered = utilTrace();
}  // namespace

}  // namespace Tarvo::Util::Impl
