// The fork hook: prepares the library for life in a forked child.
//
// The library registers handleFork() as a pthread_atfork child handler when it is loaded.
// In a forked child isForkedChild() is true (and stays true for that child's own children),
// the forking thread's event base has been re-initialised (leForkReinit) so the child can run
// its loop and its scheduler root, the library lock is free even if another thread of the
// parent held it at the fork, and the schedulers' wrong-thread checks stand down.
#pragma once

namespace Tarvo {
namespace Platform {

// Registers handleFork() as the child handler of pthread_atfork. Ends the process if the
// registration fails. Called once at load; calling it again registers the handler again.
void setupHandler();
// Marks the process as a forked child, frees the library lock if a vanished thread held it
// and re-initialises the calling thread's event base if it has one.
void handleFork();
// Whether this process is a forked child of a process that had the library loaded.
bool isForkedChild();

}  // namespace Platform
}  // namespace Tarvo
