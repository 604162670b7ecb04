// Thread names, cached per thread so that trace and wrong-thread messages name threads
// cheaply. Names are at most 15 characters (the kernel's limit).
#pragma once

namespace Tarvo {

// The calling thread's name, read from the system once and cached. Throws AssertException
// if the system refuses.
const char* threadName();

// Names the calling thread and caches the name. On the main thread it does nothing, so the
// process keeps the name it started with. Throws AssertException (naming `name`) when the
// system refuses, e.g. for a name longer than 15 characters; the cache keeps its old value.
void threadNameIs(const char* name);

}  // namespace Tarvo
