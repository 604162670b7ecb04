#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Tarvo/UtilNet.h"

namespace Tarvo::Netns {
namespace {

thread_local std::string tracebuffer;

int fail(const std::string& what, int error) {
  tracebuffer = what + ": " + std::strerror(error);
  errno = error;
  return -1;
}

}  // namespace

int setnsByName(const char* name, int nstype) {
  std::string label = std::string("setnsByName(") + (name ? name : "(null)") + ")";
  if (name == nullptr || *name == '\0' || std::strchr(name, '/') != nullptr ||
      std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
    return fail(label + " bad namespace name", EINVAL);
  }
  std::string path = std::strcmp(name, DEFAULT_NS) == 0 ? std::string("/proc/1/ns/net")
                                                        : std::string("/var/run/netns/") + name;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return fail(label + " open(" + path + ") failed", errno);
  }
  int rc = ::setns(fd, nstype);
  int error = errno;
  ::close(fd);
  if (rc != 0) {
    return fail(label + " setns(" + path + ") failed", error);
  }
  return 0;
}

const char* netnsGetTracebuffer() {
  return tracebuffer.c_str();
}

}  // namespace Tarvo::Netns
