// An owning handle on an open directory stream, for walking directory trees.
//
// A DirNode opens its directory when constructed and closes it when destroyed. It may hold
// the node of its enclosing directory, which keeps that node (and its stream) alive while
// children are walked. Failure to open is not an error: the node is then "not open" and
// reads no entries, which is what a walk over a changing or partly unreadable tree (such as
// /proc) needs. A read error on an open stream throws RuntimeException.
//
// Threads: a DirNode is used by one thread at a time.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

#include "Tarvo/Debug.h"

namespace Tarvo {

// A handle on a directory stream; see the top of this file.
class DirNode : public Debuggable {
 public:
  // Opens `path`. A failure is traced (at 9 for ENOENT, EACCES and ENOTDIR, expected in a
  // tree that changes or is partly unreadable; at 1 otherwise) and leaves the node not open.
  // A path holding a NUL byte is not opened (EINVAL, traced at 1): the system would open the
  // shorter path before that byte.
  DirNode(Platform::DebugHandler& h, const std::string& path,
          std::shared_ptr<DirNode> parent = nullptr);
  // Closes the stream; a close failure is traced at 1, never thrown.
  ~DirNode() override;

  DirNode(const DirNode&) = delete;
  DirNode& operator=(const DirNode&) = delete;

  // Closes the stream if it is open, then opens `path` again from its first entry.
  void openDir();

  // The next entry, "." and ".." included, or null at the end or when not open. The entry
  // belongs to the stream and is valid until the next call. Throws RuntimeException when the
  // system reports a read error.
  struct dirent* readEntry() const;

  // Whether the directory could be opened, its path, and the node of its enclosing
  // directory (null when none was given).
  bool isOpen() const { return dir_ != nullptr; }
  const std::string& path() const { return path_; }
  const std::shared_ptr<DirNode>& parent() const { return parent_; }

 private:
  DIR* dir_ = nullptr;
  std::shared_ptr<DirNode> parent_;
  std::string path_;
};

}  // namespace Tarvo
