// What the fork hook does to the library lock in a forked child.
#pragma once

namespace Tarvo::Platform {

// In a forked child only the forking thread exists. If another thread of the parent held
// the library lock at the moment of the fork, nobody will ever release the child's copy:
// make it free again, so that tracing in the child cannot deadlock. A lock held by the
// forking thread itself is left as it is.
void locoAfterFork();

}  // namespace Tarvo::Platform
