// The "TaskScheduler" trace handler shared by the scheduler sources.
#pragma once

#include "Tarvo/Debug.h"

namespace Tarvo {

inline Platform::DebugHandler& schedulerTrace() {
  static Platform::DebugHandler* const handler = Platform::getDebugHandler("TaskScheduler");
  return *handler;
}

}  // namespace Tarvo
