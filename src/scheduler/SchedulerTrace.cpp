#include "scheduler/SchedulerTrace.h"

namespace Tarvo {

Platform::DebugHandler& schedulerTraceHandler = *Platform::getDebugHandler("TaskScheduler");

}  // namespace Tarvo
