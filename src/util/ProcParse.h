// Parsers of /proc texts, kept apart from the file reading so that malformed content can be
// handed to them directly.
#pragma once

#include <string>

#include "Tarvo/Debug.h"

namespace Tarvo::Util::Impl {

// The process name from the text of a /proc/<pid>/status file: the rest of the first line
// holding "Name:", without surrounding blanks, tabs and newlines. Empty, traced at 1, when no
// line holds it or the name is empty. `pid` only names the process in the traces.
std::string procTitleFromStatus(Platform::DebugHandler& h, const std::string& status, int pid);

// Field 22 (start time) of a /proc/<pid>/stat line, as text, found from the last ')' so that a
// command name holding blanks or parentheses does not shift the fields. Throws AssertException when
// the line is too short. `path` only names the file in the messages.
std::string procStartTimeFromStat(Platform::DebugHandler& h, const std::string& line,
                                  const std::string& path);

// The inode of the socket on the first line of a /proc/net/unix text that contains
// `socketName`: the column before the path. 0 when no line matches or the column is not a
// positive number.
unsigned long socketInodeFromNetUnix(Platform::DebugHandler& h, const std::string& netUnix,
                                     const std::string& socketName);

// Whether the process whose /proc entry is `entryName` may hold one of the locks listed in
// the /proc/locks text `locks`: its name occurs anywhere in the text (a plain substring
// filter, so 12 also passes when only 123 holds a lock), or the text lists an
// open-file-description lock, whose owner the kernel shows as -1.
bool procLocksMayList(const std::string& locks, const std::string& entryName);

// Whether a /proc/<pid>/fdinfo/<fd> text lists a record lock (POSIX or OFD) held through
// that descriptor.
bool fdinfoShowsLock(const std::string& fdinfo);

}  // namespace Tarvo::Util::Impl
