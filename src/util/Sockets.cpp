#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "Tarvo/DisplayPointer.h"
#include "Tarvo/Exception.h"
#include "Tarvo/UtilNet.h"
#include "util/NulCheck.h"
#include "util/UtilTrace.h"

namespace Tarvo::Util {
namespace {

// The calling thread's namespace: /proc/self would name the main thread's, and switching back
// to that would strand a thread that lives in another namespace.
constexpr const char* kSelfNetNs = "/proc/thread-self/ns/net";

// Closes a descriptor it owns unless released.
class OwnedFd {
 public:
  explicit OwnedFd(int fd) : fd_(fd) {}
  ~OwnedFd() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace

int socket(Platform::DebugHandler* h, int domain, int type, int protocol) {
  Platform::DebugHandler& trace = Impl::traceHandler(h);
  int localNsFd = ::open(kSelfNetNs, O_RDONLY | O_CLOEXEC);
  if (localNsFd < 0) {
    int error = errno;
    if (error != ENOENT && error != EACCES) {
      return -1;
    }
    TARVO_TRACE(trace, 2,
                "Util::socket() failed to open " << kSelfNetNs << " reason: " << strerror(error));
    int sd = ::socket(domain, type, protocol);
    if (sd >= 0) {
      TARVO_TRACE(trace, 2, "Util::socket() success opening local socket, sd:" << sd);
    }
    return sd;
  }
  TARVO_TRACE(trace, 2, "Util::socket() success opening " << kSelfNetNs);

  bool switched = Netns::setnsByName(Netns::DEFAULT_NS, CLONE_NEWNET) == 0;
  if (switched) {
    TARVO_TRACE(trace, 2, "Util::socket() setnsByName() to " << Netns::DEFAULT_NS << " success");
  } else {
    TARVO_TRACE(trace, 2,
                "Util::socket() setnsByName() to " << Netns::DEFAULT_NS
                                                   << " failure: " << Netns::netnsGetTracebuffer());
  }

  errno = 0;
  OwnedFd sd(::socket(domain, type, protocol));
  int error = errno;
  TARVO_TRACE(trace, 2,
              "Util::socket() " << (sd.get() < 0 ? "failed" : "success") << " opening "
                                << (switched ? Netns::DEFAULT_NS : "local")
                                << " socket: " << strerror(error));

  if (switched) {
    errno = 0;
    if (::setns(localNsFd, CLONE_NEWNET) != 0) {
      std::string reason = strerror(errno);
      ::close(localNsFd);
      RuntimeException::throwException(
          "Util::socket() failed to switch back to caller's namespace: " + reason);
    }
  }
  if (::close(localNsFd) != 0) {
    RuntimeException::throwException("Util::socket() failed to close( localNsFd ): " +
                                     std::string(strerror(errno)));
  }
  errno = error;
  return sd.release();
}

int createAndBindSocket(Platform::DebugHandler* h, const std::string& name) {
  Platform::DebugHandler& trace = Impl::traceHandler(h);
  if (Impl::holdsNul(name)) {
    debugAndThrowAssertException(
        &trace, 1,
        "WriterLock::createAndBindSocket() unexpected NUL byte in name: " + Impl::shownNul(name),
        "Util", __func__, __LINE__);
  }
  OwnedFd sd(Util::socket(h, AF_UNIX, SOCK_SEQPACKET, 0));
  if (sd.get() < 0) {
    debugAndThrowAssertException(
        &trace, 1,
        "WriterLock::createAndBindSocket() socket() failed: " + std::string(strerror(errno)),
        "Util", __func__, __LINE__);
  }
  int on = 1;
  if (::setsockopt(sd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    debugAndThrowAssertException(
        &trace, 1,
        "WriterLock::createAndBindSocket() setsockopt() failed: " + std::string(strerror(errno)),
        "Util", __func__, __LINE__);
  }

  // Abstract address: a leading zero byte, then the name's bytes, unpadded. sun_path has room
  // for the zero byte and 107 name bytes; longer names are cut and the length counts only what
  // was copied.
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  size_t nameLen = std::min(name.size(), sizeof addr.sun_path - 1);
  std::memcpy(addr.sun_path + 1, name.data(), nameLen);
  auto addrLen = static_cast<socklen_t>(sizeof addr.sun_family + 1 + nameLen);

  TARVO_TRACE(trace, 2, "WriterLock::createAndBindSocket() using abstract socket " << name);
  if (::bind(sd.get(), reinterpret_cast<const sockaddr*>(&addr), addrLen) != 0) {
    std::string reason = strerror(errno);
    RuntimeException::throwException("WriterLock::createAndBindSocket() bind() failed for socket:" +
                                     DisplayPointer(&addr).toString() + " error: " + reason);
  }
  return sd.release();
}

}  // namespace Tarvo::Util
