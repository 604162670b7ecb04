#include "Tarvo/DirNode.h"

#include <cerrno>
#include <cstring>

#include "Tarvo/Exception.h"
#include "util/NulCheck.h"

namespace Tarvo {

DirNode::DirNode(Platform::DebugHandler& h, const std::string& path,
                 std::shared_ptr<DirNode> parent)
    : Debuggable(h), parent_(std::move(parent)), path_(path) {
  TARVO_TRACE(debugHandler(), 9, "DirNode::DirNode() path: " << path_);
  openDir();
}

DirNode::~DirNode() {
  TARVO_TRACE(debugHandler(), 9, "DirNode::~DirNode() path: " << path_);
  if (dir_ != nullptr && ::closedir(dir_) != 0) {
    int err = errno;
    TARVO_TRACE(debugHandler(), 1,
                "DirNode::~DirNode() failed to close " << path_ << " errno: " << strerror(err));
  }
}

void DirNode::openDir() {
  if (dir_ != nullptr) {
    if (::closedir(dir_) != 0) {
      int err = errno;
      TARVO_TRACE(debugHandler(), 1,
                  "DirNode::openDir() failed to close "
                      << path_ << " before reopening. errno: " << strerror(err));
    }
    dir_ = nullptr;
  }
  dir_ = Util::Impl::refusesNul(path_) ? nullptr : ::opendir(path_.c_str());
  if (dir_ == nullptr) {
    int err = errno;
    // Entries vanish and some are unreadable while a live tree such as /proc is walked.
    unsigned level = (err == ENOENT || err == EACCES || err == ENOTDIR) ? 9 : 1;
    TARVO_TRACE(debugHandler(), level,
                "DirNode::DirNode() failed to open " << path_ << " errno: " << strerror(err));
  }
}

struct dirent* DirNode::readEntry() const {
  TARVO_TRACE(debugHandler(), 9, "DirNode::readEntry() path: " << path_);
  if (dir_ == nullptr) {
    TARVO_TRACE(
        debugHandler(), 5,
        "DirNode::readEntry() cannot read " << path_ << " because the directory is not open");
    return nullptr;
  }
  errno = 0;
  struct dirent* entry = ::readdir(dir_);
  if (entry == nullptr && errno != 0) {
    int err = errno;
    Platform::DebugStream message;
    message << "DirNode::readEntry() failed to read " << path_ << " errno: " << strerror(err);
    std::string text = message.str();
    TARVO_TRACE(debugHandler(), 0, text);
    RuntimeException::throwException(text);
  }
  return entry;
}

}  // namespace Tarvo
