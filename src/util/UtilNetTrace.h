// The handler the socket and symbol utilities trace on when their caller gives none.
#pragma once

#include "Tarvo/Debug.h"

namespace Tarvo::Util::Impl {

inline Platform::DebugHandler& traceHandler(Platform::DebugHandler* h) {
  if (h != nullptr) {
    return *h;
  }
  static Platform::DebugHandler* utilHandler = Platform::getDebugHandler("TarvoUtil");
  return *utilHandler;
}

}  // namespace Tarvo::Util::Impl
