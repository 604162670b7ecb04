// The process-wide clock behind TaskClock, as the fork hook sees it.
#pragma once

namespace Tarvo {

// Frees the clock's resync try-lock in a forked child, where the thread holding it is gone.
void processClockAfterFork() noexcept;

}  // namespace Tarvo
