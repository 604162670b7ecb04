#include "Tarvo/FileLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Tarvo/Exception.h"
#include "Tarvo/UtilFiles.h"
#include "util/NulCheck.h"

namespace Tarvo {

int cmd_F_OFD_SETLK() {
  return 37;
}

int cmd_F_OFD_GETLK() {
  return 36;
}

#ifdef F_OFD_SETLK
static_assert(F_OFD_SETLK == 37 && F_OFD_GETLK == 36);
#endif

namespace {

// A record over the whole file, also as it grows. Open-file-description locks need pid 0.
struct flock wholeFileRecord(short type) {
  struct flock record;
  std::memset(&record, 0, sizeof record);
  record.l_type = type;
  record.l_whence = SEEK_SET;
  return record;
}

}  // namespace

FileLock::FileLock(Platform::DebugHandler& handler, const std::string& directory,
                   const std::string& filename)
    : Debuggable(handler), directory_(directory) {
  // The path ends at a NUL byte for the system: two names differing only after one would be
  // one lock.
  for (const auto& [what, text] : {std::pair{"directory", &directory}, {"filename", &filename}}) {
    if (Util::Impl::holdsNul(*text)) {
      Platform::DebugStream message;
      message << "Tarvo::FileLock::FileLock() unexpected NUL byte in " << what << ": "
              << Util::Impl::shownNul(*text);
      debugAndThrowAssertException(debugHandler(), 0, message, "FileLock", "FileLock", __LINE__);
    }
  }
  if (filename.find('/') != std::string::npos) {
    Platform::DebugStream message;
    message << "Tarvo::FileLock::FileLock() unexpected '/' in filename: " << filename;
    debugAndThrowAssertException(debugHandler(), 0, message, "FileLock", "FileLock", __LINE__);
  }
  file_ = directory_.empty() ? filename : directory_ + "/" + filename;
}

FileLock::~FileLock() {
  TARVO_TRACE(debugHandler(), 5, "FileLock::~FileLock() file:" << file_);
  if (fd_ < 0) {
    return;
  }
  // A forked child shares the lock's open file description with its parent: closing the
  // child's descriptor leaves the parent's lock in place, unlocking would drop it.
  if (pid_ == ::getpid()) {
    release();
  } else {
    closeFd();
  }
}

bool FileLock::lock() {
  TARVO_TRACE(debugHandler(), 5, "FileLock::lock() file:" << file_);
  // An empty directory means the working directory, which exists.
  if (!directory_.empty() && Util::mkpath(directory_, 0777) < 0 && errno != EEXIST) {
    int err = errno;
    Platform::DebugStream message;
    message << "FileLock::lock() unexpected mkpath() error " << directory_ << ": " << strerror(err);
    debugAndThrowAssertException(debugHandler(), 0, message, "FileLock", "lock", __LINE__);
  }
  // Close-on-exec from the start, so that no program started by another thread meanwhile
  // inherits the descriptor and with it the lock.
  int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    int err = errno;
    TARVO_TRACE(
        debugHandler(), 1,
        "FileLock::lock() error: could not open lock file:" << file_ << " " << strerror(err));
    return false;
  }
  struct flock record = wholeFileRecord(F_WRLCK);
  if (::fcntl(fd, cmd_F_OFD_SETLK(), &record) != 0) {
    int err = errno;
    ::close(fd);
    if (err == EAGAIN || err == EACCES) {
      TARVO_TRACE(debugHandler(), 1,
                  "FileLock::lock() error: conflicting lock held on file:" << file_);
      return false;
    }
    Platform::DebugStream message;
    message << "FileLock::lock() unexpected error: " << strerror(err) << " file:" << file_;
    debugAndThrowAssertException(debugHandler(), 0, message, "FileLock", "lock", __LINE__);
  }
  TARVO_TRACE(debugHandler(), 5, "FileLock::lock() acquired lock on file:" << file_);
  fd_ = fd;
  pid_ = ::getpid();
  return true;
}

void FileLock::release() {
  TARVO_TRACE(debugHandler(), 5, "FileLock::release() file:" << file_);
  if (fd_ < 0) {
    Platform::DebugStream message;
    message << "FileLock::release() attempting to release a lock that is not currently held. "
            << "File:" << file_;
    debugAndThrowAssertException(debugHandler(), 0, message, "FileLock", "release", __LINE__);
  }
  if (::getpid() != pid_) {
    Platform::DebugStream message;
    message << "FileLock::release() called from child process:" << ::getpid()
            << " of owner pid:" << pid_;
    debugAndThrowAssertException(debugHandler(), 0, message, "FileLock", "release", __LINE__);
  }
  struct flock record = wholeFileRecord(F_UNLCK);
  if (::fcntl(fd_, cmd_F_OFD_SETLK(), &record) != 0) {
    int err = errno;
    Platform::DebugStream message;
    message << "FileLock::release() unexpected error: " << strerror(err) << " file:" << file_
            << " fd:" << fd_;
    debugAndThrowAssertException(debugHandler(), 0, message, "FileLock", "release", __LINE__);
  }
  closeFd();
  pid_ = -1;
  TARVO_TRACE(debugHandler(), 5, "FileLock::release() released lock on file:" << file_);
}

void FileLock::closeFd() {
  TARVO_TRACE(debugHandler(), 5, "FileLock::closeFd() file:" << file_ << " fd:" << fd_);
  if (fd_ < 0) {
    TARVO_TRACE(debugHandler(), 5, "FileLock::closeFd() no active fd: nothing to do");
    return;
  }
  if (::close(fd_) != 0) {
    int err = errno;
    TARVO_TRACE(
        debugHandler(), 1,
        "FileLock::closeFd() error: " << strerror(err) << " file:" << file_ << " fd:" << fd_);
  } else {
    TARVO_TRACE(debugHandler(), 5, "FileLock::closeFd() closed fd for file:" << file_);
  }
  // A failed close is not retried: the descriptor may already be gone.
  fd_ = -1;
}

}  // namespace Tarvo
