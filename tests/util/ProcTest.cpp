#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <optional>

#include "Tarvo/Exception.h"
#include "Tarvo/FileLock.h"
#include "Tarvo/Util.h"
#include "common/TestSupport.h"
#include "util/ProcParse.h"
#include "util/TraceRecorder.h"
#include "util/WaitingChild.h"

namespace Tarvo {
namespace {

using Test::TraceRecorder;
using Test::WaitingChild;

// Levels 0 to 7: the walks over /proc trace every descriptor at 9.
constexpr uint32_t kNoDetail = 0xff;

std::string assertMessage(const std::function<void()>& body) {
  try {
    body();
  } catch (const AssertException& e) {
    return e.message();
  }
  return "no exception";
}

bool isDecimal(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// A stat line whose start time (field 22) is 987654, with `command` as field 2.
std::string statLine(const std::string& command) {
  std::string line = "4242 (" + command + ") S";
  for (int field = 4; field <= 21; ++field) {
    line += " " + std::to_string(field);
  }
  return line + " 987654 23 24";
}

// Binds a Unix socket to an abstract name; -1 on failure.
int bindAbstract(const std::string& name) {
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 2);
  socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

std::string canonical(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

TEST(ProcIntrospectionTest, StatusParsingTakesTheTrimmedFirstNameLine) {
  TraceRecorder trace;
  EXPECT_EQ(
      Util::Impl::procTitleFromStatus(trace, "Umask:\t0022\nName:\tmy agent \t\nName:\tx\n", 7),
      "my agent");
  EXPECT_TRUE(trace.has(5, "Util::readProcTitle() success - title:my agent"));

  EXPECT_EQ(Util::Impl::procTitleFromStatus(trace, "State:\tR\nName:\t \n", 7), "");
  EXPECT_TRUE(trace.has(1, "Util::readProcTitle() error - Read 0 length title for pid:7"));

  EXPECT_EQ(Util::Impl::procTitleFromStatus(trace, "State:\tR\nPid:\t7\n", 7), "");
  EXPECT_TRUE(trace.has(
      1, "Util::readProcTitle() error - Couldn't find proc title for pid:7 stream state:"));
}

TEST(ProcIntrospectionTest, ProcTitleNamesTheProcessOrTracesItsAbsence) {
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([] {
    ::prctl(PR_SET_NAME, "my agent");
    TraceRecorder trace;
    return Util::readProcTitle(trace, 0, false) == "my agent" &&
                   Util::readProcTitle(static_cast<int>(::getpid()), false) == "my agent"
               ? 0
               : 1;
  });
  EXPECT_EQ(child.exitCode, 0);

  TraceRecorder trace;
  std::string missing = "Util::readProcTitle() error - Couldn't access status file:/proc/" +
                        std::to_string(INT_MAX) + "/status stream state:";
  EXPECT_EQ(Util::readProcTitle(trace, INT_MAX, false), "");
  EXPECT_TRUE(trace.has(1, missing));
  trace.clear();
  EXPECT_EQ(Util::readProcTitle(trace, INT_MAX, true), "");
  EXPECT_TRUE(trace.has(5, missing));
  EXPECT_FALSE(trace.has(1, missing));
}

TEST(ProcIntrospectionTest, StatParsingCountsFieldsFromTheLastParenthesis) {
  TraceRecorder trace;
  EXPECT_EQ(Util::Impl::procStartTimeFromStat(trace, statLine("a) b"), "/p"), "987654");
  EXPECT_EQ(Util::Impl::procStartTimeFromStat(trace, statLine("x"), "/p"), "987654");
  std::string doubled = statLine("x");
  doubled.replace(doubled.find(") S"), 3, ")  S ");
  EXPECT_EQ(Util::Impl::procStartTimeFromStat(trace, doubled, "/p"), "987654");

  for (const std::string& line :
       {std::string("1 (x)"), std::string("1 (x) "), std::string("1 x")}) {
    std::string message =
        assertMessage([&] { Util::Impl::procStartTimeFromStat(trace, line, "/p"); });
    EXPECT_TRUE(message.starts_with("Util:readProcStartTime:")) << message;
    EXPECT_NE(message.find("Util::readProcStartTime() input not long enough to contain start "
                           "time. file: /p line: \"" +
                           line + "\""),
              std::string::npos)
        << message;
  }

  std::string shortLine = "1 (x) S 4 5 6";
  std::string message =
      assertMessage([&] { Util::Impl::procStartTimeFromStat(trace, shortLine, "/p"); });
  EXPECT_NE(message.find("Util::readProcStartTime() Failed to parse start time from file: /p "
                         "line: \"1 (x) S 4 5 6\" procStartTime.size():0 tokPos:4 "
                         "startTimeFieldPos:19"),
            std::string::npos)
      << message;
}

TEST(ProcIntrospectionTest, StartTimeIsTheDecimalFieldOfALiveProcess) {
  TraceRecorder trace;
  std::string own = Util::readProcStartTime(trace, 0);
  EXPECT_TRUE(isDecimal(own)) << own;
  EXPECT_EQ(Util::readProcStartTime(static_cast<int>(::getpid())), own);
  EXPECT_TRUE(trace.has(5, "Util::readProcStartTime() success - pid:" + std::to_string(::getpid()) +
                               " start time:" + own));

  WaitingChild child([] { return true; });
  std::string later = Util::readProcStartTime(trace, child.pid());
  ASSERT_TRUE(isDecimal(later)) << later;
  EXPECT_GE(std::stoull(later), std::stoull(own));

  EXPECT_EQ(Util::readProcStartTime(trace, INT_MAX), "");
  EXPECT_TRUE(trace.has(5, "Util::readProcStartTime() error - Couldn't access stat file:/proc/" +
                               std::to_string(INT_MAX) + "/stat"));
}

TEST(ProcIntrospectionTest, PidCmdlineIsTheProgramNameOnly) {
  TraceRecorder trace;
  int input[2];
  int execDone[2];
  ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(execDone, O_CLOEXEC), 0);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(input[0], STDIN_FILENO);
    ::execl("/bin/cat", "cat", "-u", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(input[0]);
  ::close(execDone[1]);
  // The pipe's write end closes with the exec.
  char byte;
  EXPECT_EQ(::read(execDone[0], &byte, 1), 0);
  ::close(execDone[0]);

  EXPECT_EQ(Util::readPidCmdline(trace, pid), "cat");
  ::close(input[1]);
  ::waitpid(pid, nullptr, 0);
  EXPECT_EQ(Util::readPidCmdline(trace, pid), "");
}

TEST(ProcIntrospectionTest, NetUnixParsingTakesTheFirstLineContainingTheName) {
  TraceRecorder trace;
  std::string text =
      "Num       RefCount Protocol Flags    Type St Inode Path\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 1111 @agent.sock.old\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 2222 @agent.sock\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 abc @broken\n";
  EXPECT_EQ(Util::Impl::socketInodeFromNetUnix(trace, text, "@agent.sock"), 1111u);
  EXPECT_TRUE(trace.has(5, "Util::readProcNetUnix() sockInode:1111"));
  EXPECT_TRUE(trace.has(7, "Util::readProcNetUnix() Num       RefCount"));
  EXPECT_EQ(Util::Impl::socketInodeFromNetUnix(trace, text, "broken"), 0u);
  EXPECT_TRUE(trace.has(1, "Util::readProcNetUnix() Couldn't convert inode 'abc' to U32."));
  EXPECT_EQ(Util::Impl::socketInodeFromNetUnix(trace, text, "absent"), 0u);
}

TEST(ProcIntrospectionTest, SocketPidFindsTheProcessHoldingTheSocket) {
  TraceRecorder trace(kNoDetail);
  std::string name = "tarvo-proc-test-" + std::to_string(::getpid());
  int fdsBefore = Tarvo::Test::openFdCount();
  int fd = bindAbstract(name);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(Util::readSocketPid(trace, name), static_cast<unsigned>(::getpid()));
  EXPECT_TRUE(trace.has(5, "Util::readProcFd() found owner pid:" + std::to_string(::getpid())));
  ::close(fd);
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);

  WaitingChild child([&] { return bindAbstract(name + "-child") >= 0; });
  ASSERT_TRUE(child.setupOk());
  EXPECT_EQ(Util::readSocketPid(trace, name + "-child"), static_cast<unsigned>(child.pid()));

  trace.clear();
  EXPECT_EQ(Util::readSocketPid(trace, name + "-absent"), 0u);
  EXPECT_TRUE(trace.has(5, "Util::readSocketPid() unable to find inode"));
}

TEST(ProcIntrospectionTest, LockPidFindsTheHolderAndNotAProcessThatOnlyOpened) {
  Tarvo::Test::TempDir tempDir;
  std::string dir = canonical(tempDir.path());
  std::string lockName = dir + "/role.lock";
  TraceRecorder trace(kNoDetail);
  int fdsBefore = Tarvo::Test::openFdCount();

  std::optional<FileLock> held;
  {
    WaitingChild holder([&] {
      held.emplace(trace, dir, "role.lock");
      return held->lock();
    });
    ASSERT_TRUE(holder.setupOk());
    EXPECT_EQ(Util::readLockPid(trace, lockName), static_cast<unsigned>(holder.pid()));
    // The link target is compared whole: a prefix of it is another file.
    EXPECT_EQ(Util::readLockPid(trace, dir + "/role.loc"), 0u);
  }

  // The opener holds a classic lock on another file, so that its pid is listed in /proc/locks
  // and its descriptors are looked at.
  WaitingChild opener([&] {
    int other = ::open((dir + "/other.lock").c_str(), O_RDWR | O_CREAT, 0600);
    struct flock record {};
    record.l_type = F_WRLCK;
    return ::open(lockName.c_str(), O_RDONLY) >= 0 && ::fcntl(other, F_SETLK, &record) == 0;
  });
  ASSERT_TRUE(opener.setupOk());
  trace.clear();
  EXPECT_EQ(Util::readLockPid(trace, lockName), 0u);
  std::string pid = std::to_string(opener.pid());
  bool traced = false;
  for (const auto& [level, line] : trace.lines()) {
    traced |= level == 5 &&
              line.starts_with("Util::readLockPid() pid:" + pid + " file:/proc/" + pid + "/fd/") &&
              line.ends_with(" is open, but not locked associated with lock");
  }
  EXPECT_TRUE(traced);
  opener.release();

  FileLock own(trace, dir, "role.lock");
  ASSERT_TRUE(own.lock());
  EXPECT_EQ(Util::readLockPid(trace, lockName), static_cast<unsigned>(::getpid()));
  own.release();
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(ProcIntrospectionTest, IncludeShmemInCoreSetsOnlyTheSharedMappingBit) {
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([] {
    TraceRecorder trace;
    std::string path = "/proc/" + std::to_string(::getpid()) + "/coredump_filter";
    Util::fileWrite(trace, path, "35", false);  // 0x23
    Util::includeShmemInCore();
    unsigned long filter = std::strtoul(Util::fileRead(trace, path, true).c_str(), nullptr, 16);
    return filter == 0x2b ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
}

}  // namespace
}  // namespace Tarvo
