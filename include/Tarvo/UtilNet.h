// Utilities that deal with the process's environment: sockets in the default network
// namespace, the abstract socket through which cooperating agents find their one writer,
// symbol lookup in the running program, and naming the type of an object in another process.
//
// Every function that takes a trace handler `h` traces on it (levels 1, 2 and 5 as stated per
// function); a null `h` traces on the library's "TarvoUtil" handler.
#pragma once

#include <string>

#include "Tarvo/Debug.h"

namespace Tarvo {

// Entering named network namespaces, as iproute2 ("ip netns add NAME") creates them.
namespace Netns {

// The name of the system's default network namespace: that of process 1 (/proc/1/ns/net).
inline constexpr const char* DEFAULT_NS = "default";

// Moves the calling thread (only it) into the namespace `name`: DEFAULT_NS, or a namespace
// mounted at /var/run/netns/<name>. `nstype` is passed to setns(2) (CLONE_NEWNET, or 0 for
// any type). Needs CAP_SYS_ADMIN. Returns 0, or -1 with errno set and the reason kept for
// netnsGetTracebuffer(). A name that is empty, ".", ".." or holds a '/' fails with EINVAL.
int setnsByName(const char* name, int nstype);

// The text of the calling thread's last setnsByName() failure ("" when none has failed yet).
// Valid until the thread's next setnsByName() call.
const char* netnsGetTracebuffer();

}  // namespace Netns

namespace Util {

// socket(2), but in the default network namespace even when the calling thread lives in
// another one: the thread enters DEFAULT_NS around the one call and returns to its own
// namespace before this returns; other threads are not affected. When the default namespace
// cannot be entered (no CAP_SYS_ADMIN, or no /proc/thread-self/ns/net) the socket is made in
// the caller's namespace. Traces each step at level 2.
// Returns the descriptor, or -1 when socket(2) fails or the caller's namespace cannot be
// opened for a reason other than ENOENT and EACCES. Throws RuntimeException only when the
// thread cannot be moved back to its namespace or that namespace's handle cannot be closed
// (the new socket is closed first).
int socket(Platform::DebugHandler* h, int domain, int type, int protocol);

// A Unix sequenced-packet socket (made with Util::socket, so in the default namespace) with
// SO_REUSEADDR, bound to the abstract name `name` (no file is created). The name is unique in
// its namespace, so this is how one agent among several becomes the writer: the others' bind
// fails. The address holds the name's bytes, unpadded; names longer than 107 bytes are cut to
// their first 107 bytes and the address length passed to bind(2) counts only those. Peers
// connect with the same rule: length = sizeof(sa_family_t) + 1 + name bytes.
// Throws AssertException, before making anything, when `name` holds a NUL byte (two names
// differing only after it would otherwise be one), and when the socket cannot be made or
// configured; RuntimeException
// ("... bind() failed ... error: Address already in use" when another holds the name) when
// bind fails; no descriptor is left open on either path.
int createAndBindSocket(Platform::DebugHandler* h, const std::string& name);

// The address of `symbolName` in the running program's global scope, or null (traced at level
// 1; the reason is kept for resolveSymError()) when it is not found or `symbolName` is null.
// Traces a found symbol at level 5. Throws AssertException only when the global scope itself
// cannot be opened.
void* resolveSym(Platform::DebugHandler* h, const char* symbolName);

// The reason of the calling thread's last failed resolveSym(), or null; reading it clears it.
// The text stays valid until the thread's next failed lookup.
const char* resolveSymError();

// The mangled type name, as this process's type information holds it (the same pointer
// typeid(T).name() gives), of the object whose virtual-table pointer in process `otherPid` is
// `vptr`. The object file holding the virtual table is loaded here (and stays loaded) and the
// address translated through both processes' maps. Returns null with the reason in `error`
// when there is no such mapping, the pointer is too close to its mapping's edges, the file
// cannot be loaded here, the type information is not where a virtual table puts it, or the
// memory it needs cannot be read (a mapping reaching past the end of its file, for one). Every
// word and the name are read through the kernel (process_vm_readv), never by touching the
// memory, so bad input cannot raise SIGSEGV or SIGBUS; a non-null result is a readable,
// NUL-terminated name inside the object file's mapping. Never throws on bad input. Reads the other
// process's maps through PidMappings, so it shares that cache's one-thread-at-a-time rule.
const char* typenameFromVptr(int otherPid, const void* vptr, std::string& error);

}  // namespace Util

// Optional hooks of a heap-checking tool linked into the program.
namespace HeapChecker {

// When the environment variable HEAPCHECK is set (to anything), the address of
// HeapChecker_RecordClientAlloc / HeapChecker_RecordClientFree through Util::resolveSym;
// otherwise null without a lookup or a trace.
void* resolveAllocSym(Platform::DebugHandler* h);
void* resolveFreeSym(Platform::DebugHandler* h);

}  // namespace HeapChecker
}  // namespace Tarvo
