// Questions about processes, answered from /proc: a process's name, start time and command
// line, the owner of a named Unix socket, the holder of a lock on a file, and a switch that
// puts shared mappings into this process's core dumps.
//
// Answers describe a moment that may already be over (a process may exit, a pid may be
// reused): treat them as hints. readSocketPid and readLockPid walk every descriptor of every
// process and are meant for diagnostics, not for hot paths.
//
// Error policy: a missing or unreadable file is traced and answered with an empty string or
// 0, never thrown. Content that a working kernel never produces (a malformed stat line), an
// unopenable /proc and an unusable coredump_filter throw AssertException; a read error inside
// a /proc directory throws RuntimeException. Overloads without a handler trace through the
// library's "TarvoUtil" handler.
//
// Threads: no state of their own; any thread may call them.
#pragma once

#include <string>

// The readers below are built on the file utilities and share their handler declaration.
#include "Tarvo/UtilFiles.h"

namespace Tarvo::Util {

// The "Name:" value of /proc/<pid>/status (pid 0: this process); empty on failure. `quiet`
// lowers the trace of a missing status file from level 1 to 5, for callers probing pids that
// may have exited. Never throws.
std::string readProcTitle(Platform::DebugHandler& h, int pid, bool quiet);
std::string readProcTitle(int pid, bool quiet);

// Field 22 of /proc/<pid>/stat (pid 0: this process), the start time in clock ticks since
// boot, as the decimal text found there; empty when the file cannot be read. Throws
// AssertException when the line is too short to hold the field.
std::string readProcStartTime(Platform::DebugHandler& h, int pid);
std::string readProcStartTime(int pid);

// The program name of the process: /proc/<pid>/cmdline up to its first NUL byte, i.e. the
// first argument only. Empty when unreadable. Never throws.
std::string readPidCmdline(Platform::DebugHandler& h, int pid);

// The pid of a process that has open the Unix socket whose /proc/net/unix line is the first
// to contain `socketName` (a plain substring test; abstract names appear there with a
// leading '@'). 0 when no line matches or no process holds that socket.
unsigned readSocketPid(Platform::DebugHandler& h, const std::string& socketName);

// The pid of a process that has the file `lockName` open and holds a lock through that
// descriptor; 0 when none is found. `lockName` must be the absolute path the kernel shows
// for the file (no "..", no symbolic links), as it is compared with the descriptor's link
// target exactly. A process that only has the file open does not count.
unsigned readLockPid(Platform::DebugHandler& h, const std::string& lockName);

// Sets bit 0x8 (file-backed shared mappings) in this process's /proc/<pid>/coredump_filter,
// so that shared-memory segments appear in its core files. Call once at start-up. Throws
// AssertException when the file cannot be opened or read.
void includeShmemInCore();

}  // namespace Tarvo::Util
