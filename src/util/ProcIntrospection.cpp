#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "Tarvo/DirNode.h"
#include "Tarvo/Exception.h"
#include "Tarvo/UtilFiles.h"
#include "Tarvo/UtilProc.h"
#include "util/ProcParse.h"
#include "util/UtilTrace.h"

namespace Tarvo::Util {
namespace {

std::string procPath(int pid, const char* leaf) {
  return "/proc/" + std::to_string(pid == 0 ? ::getpid() : pid) + "/" + leaf;
}

std::shared_ptr<DirNode> openProc(Platform::DebugHandler& h, const char* function) {
  auto proc = std::make_shared<DirNode>(h, "/proc");
  if (!proc->isOpen()) {
    debugAndThrowAssertException(&h, 0, "Couldn't open /proc", "Util", function, __LINE__);
  }
  return proc;
}

// The pid that a /proc entry name stands for; 0 for entries that are not processes.
unsigned pidOfProcEntry(const std::string& name) {
  if (name == "self") {
    return static_cast<unsigned>(::getpid());
  }
  return static_cast<unsigned>(std::strtoul(name.c_str(), nullptr, 10));
}

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};

// The inode of the first /proc/net/unix line naming the socket; 0 when there is none.
unsigned long readProcNetUnix(Platform::DebugHandler& h, const std::string& socketName) {
  std::ifstream in("/proc/net/unix");
  std::ostringstream text;
  text << in.rdbuf();
  return Impl::socketInodeFromNetUnix(h, text.str(), socketName);
}

// Walks the descriptors of every /proc entry whose name `wanted` accepts and returns the first
// non-zero answer of `visit(entryName, fdName, path, st)`, called for each descriptor that
// stat() can follow; 0 when none answers. `label` starts the trace lines, `function` names
// the caller in the assertion raised when /proc cannot be opened.
template <typename Wanted, typename Visit>
unsigned walkProcFds(Platform::DebugHandler& h, const char* function, const char* label,
                     Wanted wanted, Visit visit) {
  std::shared_ptr<DirNode> proc = openProc(h, function);
  while (struct dirent* procEntry = proc->readEntry()) {
    std::string name = procEntry->d_name;
    if (!wanted(name)) {
      continue;
    }
    std::string fdDirPath = "/proc/" + name + "/fd";
    DirNode fdDir(h, fdDirPath, proc);
    while (struct dirent* fdEntry = fdDir.readEntry()) {
      std::string path = fdDirPath + "/" + fdEntry->d_name;
      TARVO_TRACE(h, 9, label << " reading entry " << path);
      struct stat st;
      if (::stat(path.c_str(), &st) != 0) {
        TARVO_TRACE(h, 1, label << " stat failed:" << path);
        continue;
      }
      if (unsigned pid = visit(name, fdEntry->d_name, path, st)) {
        return pid;
      }
    }
  }
  return 0;
}

// The first process found with a descriptor on the socket `inode`; 0 when there is none.
unsigned readProcFd(Platform::DebugHandler& h, unsigned long inode) {
  TARVO_TRACE(h, 5, "Util::readProcFd() searching for inode: " << inode);
  return walkProcFds(
      h, "readSocketPid", "Util::readProcFd()", [](const std::string&) { return true; },
      [&](const std::string& name, const char*, const std::string& path,
          const struct stat& st) -> unsigned {
        if (!S_ISSOCK(st.st_mode)) {
          return 0;
        }
        TARVO_TRACE(h, 9, "Util::readProcFd() socket " << path << "'s inode is:" << st.st_ino);
        if (st.st_ino != inode) {
          return 0;
        }
        unsigned pid = pidOfProcEntry(name);
        if (pid == 0) {
          TARVO_TRACE(h, 1,
                      "Util::readProcFd() could not convert pid "
                          << "directory string '" << name << "' to U32");
          return 0;
        }
        TARVO_TRACE(h, 5, "Util::readProcFd() found owner pid:" << pid);
        return pid;
      });
}

// Whether the descriptor's fdinfo lists a record lock held through it.
bool holdsLock(Platform::DebugHandler& h, unsigned pid, const char* fdName) {
  return Impl::fdinfoShowsLock(
      fileRead(h, "/proc/" + std::to_string(pid) + "/fdinfo/" + fdName, true));
}

}  // namespace

std::string readProcTitle(Platform::DebugHandler& h, int pid, bool quiet) {
  if (pid == 0) {
    pid = ::getpid();
  }
  std::string path = procPath(pid, "status");
  std::ifstream in(path);
  if (!in) {
    TARVO_TRACE(h, quiet ? 5 : 1,
                "Util::readProcTitle() error - Couldn't access status file:"
                    << path << " stream state:" << in.rdstate());
    return {};
  }
  std::ostringstream status;
  status << in.rdbuf();
  return Impl::procTitleFromStatus(h, status.str(), pid);
}

std::string readProcTitle(int pid, bool quiet) {
  return readProcTitle(Impl::utilTrace(), pid, quiet);
}

std::string readProcStartTime(Platform::DebugHandler& h, int pid) {
  if (pid == 0) {
    pid = ::getpid();
  }
  std::string path = procPath(pid, "stat");
  std::ifstream in(path);
  if (!in) {
    TARVO_TRACE(h, 5,
                "Util::readProcStartTime() error - Couldn't access stat file:"
                    << path << " stream state:" << in.rdstate());
    return {};
  }
  std::string line;
  if (!std::getline(in, line)) {
    TARVO_TRACE(h, 5,
                "Util::readProcStartTime() failed to read contents of file: "
                    << path << " stream state: " << in.rdstate());
    return {};
  }
  std::string startTime = Impl::procStartTimeFromStat(h, line, path);
  TARVO_TRACE(h, 5,
              "Util::readProcStartTime() success - pid:" << pid << " start time:" << startTime);
  return startTime;
}

std::string readProcStartTime(int pid) {
  return readProcStartTime(Impl::utilTrace(), pid);
}

std::string readPidCmdline(Platform::DebugHandler& h, int pid) {
  // fileRead stops at the first NUL byte, which ends the first argument: the result is the
  // program name alone.
  return fileRead(h, "/proc/" + std::to_string(pid) + "/cmdline", true);
}

unsigned readSocketPid(Platform::DebugHandler& h, const std::string& socketName) {
  TARVO_TRACE(h, 5, "Util::readSocketPid() searching for socket name:" << socketName);
  unsigned long inode = readProcNetUnix(h, socketName);
  if (inode == 0) {
    TARVO_TRACE(h, 5, "Util::readSocketPid() unable to find inode");
    return 0;
  }
  return readProcFd(h, inode);
}

unsigned readLockPid(Platform::DebugHandler& h, const std::string& lockName) {
  TARVO_TRACE(h, 9, "Util::readLockPid() lockName:" << lockName);
  // Only processes whose pid appears in /proc/locks hold a lock worth looking for. Kernels
  // list open-file-description locks with pid -1, though, so while any is listed every
  // process has to be looked at.
  std::string locks = fileRead(h, "/proc/locks", true);
  auto holdsSomeLock = [&](const std::string& name) {
    return pidOfProcEntry(name) != 0 && Impl::procLocksMayList(locks, name);
  };
  return walkProcFds(
      h, "readLockPid", "Util::readLockPid()", holdsSomeLock,
      [&](const std::string& name, const char* fdName, const std::string& path,
          const struct stat& st) -> unsigned {
        if (!S_ISREG(st.st_mode)) {
          return 0;
        }
        // One byte more than the name, so that a longer target cannot pass as equal.
        std::vector<char> target(lockName.size() + 1, '\0');
        ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
        if (n < 0) {
          int err = errno;
          TARVO_TRACE(
              h, 5, "Util::readLockPid() readlink of file:" << path << "failed " << strerror(err));
          return 0;
        }
        if (static_cast<size_t>(n) != lockName.size() ||
            lockName.compare(0, lockName.size(), target.data(), lockName.size()) != 0) {
          return 0;
        }
        TARVO_TRACE(h, 9, "Util::readLockPid() lock " << lockName << "'s file is:" << path);
        unsigned pid = pidOfProcEntry(name);
        if (holdsLock(h, pid, fdName)) {
          TARVO_TRACE(h, 5, "Util::readLockPid() found owner pid:" << pid);
          return pid;
        }
        TARVO_TRACE(h, 5,
                    "Util::readLockPid() pid:" << pid << " file:" << path
                                               << " is open, but not locked associated with lock");
        return 0;
      });
}

void includeShmemInCore() {
  Platform::DebugHandler& h = Impl::utilTrace();
  std::string path = procPath(0, "coredump_filter");
  // Dump file-backed shared mappings too.
  constexpr unsigned kFileBackedShared = 0x8;
  std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "r+e"));
  unsigned filter = 0;
  if (file == nullptr || std::fscanf(file.get(), "%x", &filter) != 1) {
    int err = errno;
    Platform::DebugStream message;
    message << "Tarvo::Util::includeShmemInCore() fscanf failed for file:" << path
            << " error:" << strerror(err);
    debugAndThrowAssertException(&h, 0, message, "Util", "includeShmemInCore", __LINE__);
  }
  std::rewind(file.get());
  std::fprintf(file.get(), "%u", filter | kFileBackedShared);
  if (std::fclose(file.release()) != 0) {
    int err = errno;
    Platform::DebugStream message;
    message << "Tarvo::Util::includeShmemInCore() write failed for file:" << path
            << " error:" << strerror(err);
    debugAndThrowAssertException(&h, 0, message, "Util", "includeShmemInCore", __LINE__);
  }
}

}  // namespace Tarvo::Util
