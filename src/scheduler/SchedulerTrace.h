// The "TaskScheduler" trace handler shared by the scheduler sources.
#pragma once

#include "Tarvo/Debug.h"

namespace Tarvo {

// Created when the library is loaded; hidden so that hot paths reach it without indirection.
extern Platform::DebugHandler& schedulerTraceHandler __attribute__((visibility("hidden")));

inline Platform::DebugHandler& schedulerTrace() {
  return schedulerTraceHandler;
}

}  // namespace Tarvo
