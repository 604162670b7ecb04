#include <errno.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <climits>
#include <optional>

#include "Tarvo/FileLock.h"
#include "Tarvo/Util.h"
#include "util/ProcParse.h"
#include "util/SystemTestSupport.h"

namespace Tarvo {
namespace {

using Test::thrownMessage;
using Test::TraceRecorder;
using Test::WaitingChild;

TEST(ProcIntrospectionTest, ParsersHandleCraftedAndMalformedTexts) {
  TraceRecorder trace;
  using namespace Util::Impl;
  EXPECT_EQ(procTitleFromStatus(trace, "Umask:\t0022\nName:\tmy agent \t\nName:\tx\n", 7),
            "my agent");
  EXPECT_EQ(procTitleFromStatus(trace, "State:\tR\n", 7), "");
  EXPECT_TRUE(trace.has(1, "Couldn't find proc title for pid:7 stream state:"));

  // Field 2 is "(a) b)"; doubled blanks collapse.
  EXPECT_EQ(
      procStartTimeFromStat(
          trace, "42 (a) b)  S  4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 987654 23", "/p"),
      "987654");
  for (const std::string line : {"1 (x)", "1 x"}) {
    EXPECT_TRUE(thrownMessage([&] { procStartTimeFromStat(trace, line, "/p"); })
                    .ends_with("Util::readProcStartTime() input not long enough to contain start "
                               "time. file: /p line: \"" +
                               line + "\""));
  }
  EXPECT_TRUE(thrownMessage([&] { procStartTimeFromStat(trace, "1 (x) S 4 5 6", "/p"); })
                  .ends_with("Util::readProcStartTime() Failed to parse start time from file: /p "
                             "line: \"1 (x) S 4 5 6\" procStartTime.size():0 tokPos:4 "
                             "startTimeFieldPos:19"));

  std::string netUnix =
      "Num       RefCount Protocol Flags    Type St Inode Path\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 1111 @agent.sock.old\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 2222 @agent.sock\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 abc @broken\n";
  EXPECT_EQ(socketInodeFromNetUnix(trace, netUnix, "@agent.sock"), 1111u);
  EXPECT_EQ(socketInodeFromNetUnix(trace, netUnix, "broken"), 0u);
  EXPECT_TRUE(trace.has(1, "Util::readProcNetUnix() Couldn't convert inode 'abc' to U32."));
}

TEST(ProcIntrospectionTest, LiveProcessesAnswerAndVanishedOnesGiveEmptyResults) {
  EXPECT_EQ(Tarvo::Test::runInChild([] {
              ::prctl(PR_SET_NAME, "my agent");
              return Util::readProcTitle(0, false) == "my agent" ? 0 : 1;
            }).exitCode,
            0);
  TraceRecorder trace;
  // Run with arguments, of which only the first is reported.
  EXPECT_EQ(Util::readPidCmdline(trace, ::getpid()), program_invocation_name);
  EXPECT_GT(std::stoull(Util::readProcStartTime(trace, 0)), 0u);

  std::string statusMissing = "Couldn't access status file:/proc/" + std::to_string(INT_MAX);
  EXPECT_EQ(Util::readProcTitle(trace, INT_MAX, true), "");
  EXPECT_TRUE(trace.has(5, statusMissing) && !trace.has(1, statusMissing));
  EXPECT_EQ(Util::readProcTitle(trace, INT_MAX, false), "");
  EXPECT_TRUE(trace.has(1, statusMissing));
  EXPECT_EQ(Util::readProcStartTime(trace, INT_MAX), "");
  EXPECT_EQ(Util::readPidCmdline(trace, INT_MAX), "");
}

TEST(ProcIntrospectionTest, SocketAndLockOwnersAreFoundAndOpenersAreNot) {
  Tarvo::Test::TempDir tempDir;
  char resolved[PATH_MAX];
  std::string dir = ::realpath(tempDir.path().c_str(), resolved);
  std::string lockName = dir + "/role.lock";
  std::string socketName = "tarvo-proc-test-" + std::to_string(::getpid());
  TraceRecorder trace(0xff);  // not level 9, which traces every descriptor walked
  int fdsBefore = Tarvo::Test::settledFdCount();
  int sd = Util::createAndBindSocket(nullptr, socketName);
  EXPECT_EQ(Util::readSocketPid(trace, socketName), static_cast<unsigned>(::getpid()));
  ::close(sd);
  EXPECT_EQ(Util::readSocketPid(trace, socketName + "-absent"), 0u);
  EXPECT_TRUE(trace.has(5, "Util::readSocketPid() unable to find inode"));

  std::optional<FileLock> held;
  {
    WaitingChild holder([&] { return held.emplace(trace, dir, "role.lock").lock(); });
    ASSERT_TRUE(holder.setupOk());
    EXPECT_EQ(Util::readLockPid(trace, lockName), static_cast<unsigned>(holder.pid()));
    EXPECT_EQ(Util::readLockPid(trace, dir + "/role.loc"), 0u);  // targets compare whole
  }
  // A classic lock on another file puts the opener's pid into /proc/locks.
  WaitingChild opener([&] {
    int other = ::open((dir + "/other").c_str(), O_RDWR | O_CREAT, 0600);
    struct flock record {};
    record.l_type = F_WRLCK;
    return ::open(lockName.c_str(), O_RDONLY) >= 0 && ::fcntl(other, F_SETLK, &record) == 0;
  });
  ASSERT_TRUE(opener.setupOk());
  EXPECT_EQ(Util::readLockPid(trace, lockName), 0u);
  std::string pid = std::to_string(opener.pid());
  EXPECT_TRUE(trace.has(5, "Util::readLockPid() pid:" + pid + " file:/proc/" + pid + "/fd/"));
  opener.release();
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(ProcIntrospectionTest, IncludeShmemInCoreAddsOnlyTheSharedMappingBit) {
  EXPECT_EQ(Tarvo::Test::runInChild([] {
              TraceRecorder trace;
              std::string path = "/proc/" + std::to_string(::getpid()) + "/coredump_filter";
              Util::fileWrite(trace, path, "35", false);  // 0x23
              Util::includeShmemInCore();
              return Util::fileRead(trace, path, true) == "0000002b\n" ? 0 : 1;
            }).exitCode,
            0);
}

}  // namespace
}  // namespace Tarvo
