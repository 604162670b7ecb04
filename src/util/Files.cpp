#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/UtilFiles.h"
#include "util/NulCheck.h"
#include "util/PathPlan.h"
#include "util/UtilTrace.h"

namespace Tarvo::Util {
namespace {

// Sets the process umask to 0 for its scope, so created entries get exactly the mode asked for.
class ZeroUmask {
 public:
  ZeroUmask() : old_(::umask(0)) {}
  ~ZeroUmask() { ::umask(old_); }
  ZeroUmask(const ZeroUmask&) = delete;
  ZeroUmask& operator=(const ZeroUmask&) = delete;

 private:
  mode_t old_;
};

int mkpathWithZeroUmask(const std::string& path, unsigned mode) {
  TARVO_TRACE(
      Impl::utilTrace(), 9,
      "Util::mkpath() creating path: " << path << " mode: " << std::oct << mode << std::dec);
  if (Impl::refusesNul(path)) {
    return -1;
  }
  int rc = ::mkdir(path.c_str(), mode);
  if (rc == 0 || errno == EEXIST) {
    return 0;
  }
  if (errno != ENOENT) {
    return rc;
  }
  // A missing ancestor: create the parent first. A path whose parent cannot be named (no '/',
  // or only the root before it) has nothing left to create, so the ENOENT stands.
  size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) {
    return rc;
  }
  rc = mkpathWithZeroUmask(path.substr(0, slash), mode);
  if (rc != 0) {
    return rc;
  }
  rc = ::mkdir(path.c_str(), mode);
  if (rc != 0 && errno != EEXIST) {
    return rc;
  }
  // Another process may have created it meanwhile with its own mode. A "." or ".." component
  // names a directory the walk has already dealt with (the parent itself, or one above it that
  // existed before), never one to change. The directory exists either way, so a refused chmod
  // does not fail the call.
  std::string_view last = std::string_view(path).substr(slash + 1);
  if (last != "." && last != "..") {
    ::chmod(path.c_str(), mode);
  }
  return 0;
}

void trimpathCheck(bool ok, const char* message, int line) {
  if (!ok) {
    debugAndThrowAssertException(&Impl::utilTrace(), 0, message, "Util", "trimpath", line);
  }
}

}  // namespace

std::string fileRead(Platform::DebugHandler& h, const std::string& path, bool traceOpenFailure,
                     size_t limit) {
  int fd = Impl::refusesNul(path) ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (traceOpenFailure) {
      TARVO_TRACE(h, 5, "Util::fileRead() unable to open file " << path);
    }
    return {};
  }
  std::string content;
  bool failed = false;
  bool tooLong = false;
  char buffer[4096];
  // Nothing after the first NUL byte is kept, so reading stops there; and at `limit` bytes, for
  // which one more byte is read to tell a file of exactly `limit` bytes from a longer one.
  for (;;) {
    size_t room = limit - content.size();
    ssize_t n = ::read(fd, buffer, room < sizeof buffer ? room + 1 : sizeof buffer);
    if (n > 0) {
      size_t got = static_cast<size_t>(n);
      auto* nul = static_cast<const char*>(std::memchr(buffer, '\0', got));
      content.append(buffer, nul != nullptr ? static_cast<size_t>(nul - buffer) : got);
      if (nul != nullptr) {
        break;
      }
      if (content.size() > limit) {
        content.resize(limit);
        tooLong = true;
        break;
      }
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      failed = true;
      break;
    }
  }
  int err = errno;
  ::close(fd);
  if (tooLong) {
    TARVO_TRACE(h, 1,
                "Util::fileRead() " << path << " holds more than the limit of " << limit
                                    << " bytes; returning its first " << limit);
    errno = EFBIG;
  } else if (failed) {
    TARVO_TRACE(h, 1, "Util::fileRead() failed to read from " << path);
    errno = err;
  } else {
    TARVO_TRACE(h, 5, "Util::fileRead() read " << path << " '" << content << "'");
  }
  return content;
}

void fileWrite(Platform::DebugHandler& h, const std::string& path, const std::string& content,
               bool quiet) {
  int fd;
  {
    ZeroUmask zeroUmask;
    fd = Impl::refusesNul(path)
             ? -1
             : ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  }
  bool failed = false;
  if (fd < 0) {
    int err = errno;
    TARVO_TRACE(h, 0, "Util::fileWrite() unable to open " << path << " reason:" << strerror(err));
    failed = true;
  } else {
    ssize_t written = ::write(fd, content.data(), content.size());
    if (written < 0) {
      int err = errno;
      TARVO_TRACE(h, 0,
                  "Util::fileWrite() unable to write to " << path << " reason:" << strerror(err));
      failed = true;
    } else if (static_cast<size_t>(written) < content.size()) {
      TARVO_TRACE(h, 0,
                  "Util::fileWrite() wrote:" << written << " bytes to file:" << path
                                             << " but wanted to write:" << content.size());
    }
    if (::close(fd) != 0) {
      int err = errno;
      TARVO_TRACE(h, 0,
                  "Util::fileWrite() unable to close fd:" << fd << " reason:" << strerror(err));
      failed = true;
    }
  }
  if (failed && !quiet) {
    RuntimeException::throwException(content);
  }
}

bool fileExists(Platform::DebugHandler& h, const std::string& path) {
  struct stat st;
  int rc = Impl::refusesNul(path) ? -1 : ::stat(path.c_str(), &st);
  TARVO_TRACE(h, 5, "Util::fileExists() checking if " << path << " exists, stat result: " << rc);
  return rc == 0;
}

bool fileRemove(Platform::DebugHandler& h, const std::string& path) {
  if (!Impl::refusesNul(path) && ::unlink(path.c_str()) == 0) {
    TARVO_TRACE(h, 5, "Util::fileRemove() removed file " << path);
    return true;
  }
  int err = errno;
  if (err == ENOENT) {
    return true;
  }
  TARVO_TRACE(h, 0, "Util::fileRemove() unlink() error " << path << ": " << strerror(err));
  return false;
}

uint64_t fileSize(Platform::DebugHandler& h, const std::string& path) {
  struct stat st;
  if (Impl::refusesNul(path) || ::stat(path.c_str(), &st) != 0) {
    int err = errno;
    TARVO_TRACE(h, 5, "Util::fileSize() unable to stat file " << path << ": " << strerror(err));
    return 0;
  }
  return static_cast<uint64_t>(st.st_size);
}

uint64_t fileSize(Platform::DebugHandler& h, int fd) {
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    int err = errno;
    TARVO_TRACE(h, 5, "Util::fileSize() unable to fstat fd " << fd << ": " << strerror(err));
    return 0;
  }
  return static_cast<uint64_t>(st.st_size);
}

int truncate(Platform::DebugHandler& h, const std::string& path, int fd, unsigned length) {
  int rc = Impl::refusesNul(path) ? -1 : ::ftruncate(fd, static_cast<off_t>(length));
  if (rc != 0) {
    int err = errno;
    TARVO_TRACE(h, 0,
                "Util::truncate() ftruncate() size:" << length << " error: " << path << ": "
                                                     << strerror(err));
  }
  return rc;
}

bool touch(Platform::DebugHandler& h, const std::string& path) {
  ZeroUmask zeroUmask;
  int fd = Impl::refusesNul(path)
               ? -1
               : ::open(path.c_str(), O_RDONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) {
    int err = errno;
    TARVO_TRACE(h, 0, "Util::touch() unable to open " << path << " reason: " << strerror(err));
    return false;
  }
  if (::close(fd) != 0) {
    int err = errno;
    TARVO_TRACE(h, 0, "Util::touch() unable to close fd:" << fd << " reason: " << strerror(err));
    return false;
  }
  return true;
}

int mkpath(const std::string& path, unsigned mode) {
  ZeroUmask zeroUmask;
  return mkpathWithZeroUmask(path, mode);
}

namespace Impl {

std::vector<std::string> trimpathDirectories(const std::string& absolute,
                                             const std::string& trailing) {
  trimpathCheck(!absolute.empty(), "absolute path is empty", __LINE__);
  trimpathCheck(absolute[0] == '/', "absolute path is not absolute", __LINE__);
  trimpathCheck(!trailing.empty(), "trailing path is empty", __LINE__);
  trimpathCheck(trailing.size() < absolute.size(), "trailing path longer than absolute path",
                __LINE__);
  size_t base = absolute.size() - trailing.size();
  trimpathCheck(absolute.compare(base, std::string::npos, trailing) == 0,
                "trailing path is not a terminal substring of absolute path", __LINE__);
  trimpathCheck(!Impl::holdsNul(absolute), "absolute path holds a NUL byte", __LINE__);
  std::vector<std::string> directories{absolute};
  for (;;) {
    size_t pos = directories.back().rfind('/');
    if (pos == std::string::npos || pos <= base) {
      return directories;
    }
    directories.push_back(directories.back().substr(0, pos));
  }
}

}  // namespace Impl

int trimpath(const std::string& absolute, const std::string& trailing) {
  Platform::DebugHandler& h = Impl::utilTrace();
  for (const std::string& current : Impl::trimpathDirectories(absolute, trailing)) {
    TARVO_TRACE(h, 9, "Util::trimpath() removing dir " << current);
    if (::rmdir(current.c_str()) != 0 && errno != ENOENT) {
      int err = errno;
      TARVO_TRACE(h, 5,
                  "Util::trimpath() rmdir() error " << current << " reason: " << strerror(err));
      return -1;
    }
  }
  TARVO_TRACE(
      h, 5, "Util::trimpath() removed sub-tree " << trailing << " from absolute path " << absolute);
  return 0;
}

std::string getCwd(Platform::DebugHandler& h) {
  char buffer[4096];
  if (::getcwd(buffer, sizeof buffer) == nullptr) {
    int err = errno;
    Platform::DebugStream message;
    message << "Util::getCwd() getcwd()"
            << " failed:" << strerror(err);
    std::string text = message.str();
    TARVO_TRACE(h, 0, text);
    RuntimeException::throwException(text);
  }
  return buffer;
}

}  // namespace Tarvo::Util
