// An advisory, process-exclusive lock on a named file, taken without waiting.
//
// Whoever holds the write lock on the file is the owner of the role the file stands for; a
// second taker gets an immediate "no". The lock is an open-file-description lock: it belongs
// to the descriptor a FileLock opened, so two FileLocks on the same path exclude each other
// whether they live in one process or in two, and closing some other descriptor of the file
// does not drop it. The descriptor is close-on-exec, so the lock is not inherited by programs
// started through exec. Only the file's kernel lock means anything: the library never writes,
// truncates or removes the lock file.
//
//   Tarvo::FileLock role(handler, "/run/agent", "leader.lock");
//   if (!role.lock()) { /* another process is the leader */ }
//
// Failure behaviour: lock() answers false when the file cannot be opened or another
// descriptor holds the lock. Misuse (releasing a lock that is not held, releasing from a
// forked child) and system faults that a working system never shows throw AssertException.
//
// Threads: no internal locking; one object is used by one thread at a time.
#pragma once

#include <string>

#include "Tarvo/Debug.h"

namespace Tarvo {

// fcntl() command numbers of open-file-description locks, for code compiled against headers
// that lack F_OFD_SETLK (37, set without waiting) and F_OFD_GETLK (36, query).
int cmd_F_OFD_SETLK();
int cmd_F_OFD_GETLK();

// An advisory, process-exclusive lock on a named file; see the top of this file.
class FileLock : public Debuggable {
 public:
  // The lock file is `directory` + "/" + `filename` (the separator is always inserted), or
  // `filename` alone, relative to the working directory, when `directory` is empty. Nothing
  // touches the file system here. Throws AssertException when `filename` contains '/', or
  // when `directory` or `filename` holds a NUL byte (the system would read the path only up to
  // it, so locks of different names would collide).
  FileLock(Platform::DebugHandler& handler, const std::string& directory,
           const std::string& filename);
  // Releases the lock if it is held. In a forked child that inherited a held lock, only the
  // child's descriptor is closed: the parent keeps its lock.
  ~FileLock() override;

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Tries once to take the write lock over the whole file, creating the directory (mode 0777)
  // and the file (mode 0666, less the umask) when missing. True when taken; false when the
  // file cannot be opened or another descriptor, in this or another process, holds the lock.
  // Never blocks. Calling it again while held opens a second descriptor, which conflicts with
  // the first: the call answers false and the first lock stays held. Throws AssertException
  // when the directory cannot be created or the kernel refuses for another reason.
  bool lock();

  // Gives the lock up and closes the descriptor. Throws AssertException when the lock is not
  // held, when called from a process other than the one that took it (a forked child shares
  // the parent's descriptor and could otherwise drop its lock), or when the unlock fails.
  void release();

  // Closes the descriptor without an explicit unlock (closing the last descriptor of the
  // lock's open file description drops the lock). Nothing happens when none is open. A lock
  // closed this way can no longer be release()d.
  void closeFd();

  // The path of the lock file.
  const std::string& file() const { return file_; }

 private:
  std::string directory_;
  std::string file_;
  int fd_ = -1;
  int pid_ = -1;
};

}  // namespace Tarvo
