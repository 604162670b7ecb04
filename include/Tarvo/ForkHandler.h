// The fork hook: lets the library know that it runs in a forked child.
//
// The library registers handleFork() as a pthread_atfork child handler when it is loaded.
// In a forked child isForkedChild() is true (and stays true for that child's own children);
// the child must call leForkReinit() before it uses its thread's event base, and the
// schedulers' wrong-thread checks stand down there.
#pragma once

namespace Tarvo {
namespace Platform {

// Registers handleFork() as the child handler of pthread_atfork. Ends the process if the
// registration fails. Called once at load; calling it again registers the handler again.
void setupHandler();
// Marks the process as a forked child.
void handleFork();
// Whether this process is a forked child of a process that had the library loaded.
bool isForkedChild();

}  // namespace Platform
}  // namespace Tarvo
