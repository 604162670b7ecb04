// Files, paths and the working directory: thin, traced wrappers around the file-system calls
// that agents use to keep state on disk.
//
// Error policy, by kind of operation:
//   - predicates and queries answer false, 0, -1 or an empty string and trace why;
//   - operations whose failure leaves the caller unable to go on (fileWrite unless quiet,
//     getCwd) throw Tarvo::RuntimeException;
//   - argument faults (trimpath) throw Tarvo::AssertException.
// A path holding a NUL byte is refused by every function here: the system would act on the
// shorter path before that byte (fileRemove would delete another file). The function then
// fails as it does when the system refuses a path, with errno EINVAL, touching nothing;
// trimpath throws AssertException.
//
// Each function traces through the handler it is given (mkpath and trimpath through the
// library's "TarvoUtil" handler): level 0 for failures that matter, 1 for failures a caller
// may expect, 5 for normal outcomes, 9 for step-by-step detail. Messages are built only when
// their level is on.
//
// Threads: no shared state of their own. fileWrite, touch and mkpath set the process umask to
// 0 for the duration of the call, so that files and directories get exactly the requested
// mode; another thread creating files at that moment also sees umask 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tarvo {
namespace Platform {
class DebugHandler;
}  // namespace Platform

namespace Util {

// The most fileRead() returns unless told otherwise: 16 MiB, far above the state files and
// /proc files it is meant for, far below what would exhaust memory.
inline constexpr size_t kFileReadLimit = size_t{16} << 20;

// The file's content up to, not including, its first NUL byte (so a /proc file whose fields
// are NUL-separated yields its first field); reading stops at that byte, so /dev/zero gives
// an empty string at once. Empty when it cannot be opened (traced at 5 only when
// `traceOpenFailure`). On a read error, whatever was read before it (traced at 1). A file
// (or pipe, or device) holding more than `limit` bytes before any NUL gives its first `limit`
// bytes, traced at 1 like a read error, with errno set to EFBIG; so a huge or endlessly
// growing file never exhausts memory or keeps the caller reading forever. Never throws
// (except std::bad_alloc when even `limit` bytes cannot be allocated).
std::string fileRead(Platform::DebugHandler& h, const std::string& path, bool traceOpenFailure,
                     size_t limit = kFileReadLimit);

// Replaces the file's content with one write, creating the file with mode 0666 whatever the
// umask. On an open, write or close failure throws RuntimeException whose message is
// `content` itself, or returns quietly when `quiet`. A short write is traced, not a failure.
void fileWrite(Platform::DebugHandler& h, const std::string& path, const std::string& content,
               bool quiet);

// Whether stat() succeeds on `path`. Never throws.
bool fileExists(Platform::DebugHandler& h, const std::string& path);

// Unlinks `path`; true when it is gone afterwards (a missing file counts as removed).
// Never throws.
bool fileRemove(Platform::DebugHandler& h, const std::string& path);

// The size in bytes from stat() / fstat(); 0 when unknown (also for an empty file).
// Never throws.
uint64_t fileSize(Platform::DebugHandler& h, const std::string& path);
uint64_t fileSize(Platform::DebugHandler& h, int fd);

// ftruncate(fd, length); `path` only names the file in the failure trace. Returns 0 or -1.
// Never throws.
int truncate(Platform::DebugHandler& h, const std::string& path, int fd, unsigned length);

// Creates the file (mode 0666 whatever the umask) if it is missing; never changes the
// content or, explicitly, the times of an existing file. False on failure; never throws.
bool touch(Platform::DebugHandler& h, const std::string& path);

// Creates directory `path` and every missing ancestor with exactly `mode`. 0 on success or
// when `path` already exists (its mode is left alone); otherwise a negative value with errno
// set. A directory found to exist when the walk comes back to it (created meanwhile by
// another process) is given `mode`; when that chmod is refused the call still succeeds. A
// "." or ".." component is never chmodded: "/tmp/a/../b" leaves /tmp's mode alone. Never
// throws.
int mkpath(const std::string& path, unsigned mode);

// Removes, deepest first, each directory of `absolute` that lies inside its final `trailing`
// part, and stops at the first one that cannot be removed (not empty): /var/run/a/b/c with
// trailing a/b/c removes c, b and a but never /var/run. A missing directory is skipped.
// Returns 0, or -1 when a removal failed (those removed before stay removed). Throws
// AssertException when `absolute` is empty or relative, `trailing` is empty, not shorter
// than `absolute`, or not its terminal part, and when `absolute` holds a NUL byte.
int trimpath(const std::string& absolute, const std::string& trailing);

// The current working directory. Throws RuntimeException when the system cannot tell.
std::string getCwd(Platform::DebugHandler& h);

}  // namespace Util
}  // namespace Tarvo
