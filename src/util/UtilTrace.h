// The library's utility trace handler, "TarvoUtil", shared by the utilities that are not
// given a handler of their own.
#pragma once

#include "Tarvo/Debug.h"

namespace Tarvo::Util::Impl {

// Created when the library is loaded and never destroyed, so it can be used at any time,
// including from static initialisers and destructors.
Platform::DebugHandler& utilTrace();

// The handler a utility traces on: the caller's when given, "TarvoUtil" otherwise.
inline Platform::DebugHandler& traceHandler(Platform::DebugHandler* h) {
  return h != nullptr ? *h : utilTrace();
}

}  // namespace Tarvo::Util::Impl
