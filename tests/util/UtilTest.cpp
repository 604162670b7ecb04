// The utilities: texts and hashes, then files, locks, /proc introspection, mappings and
// namespaces, each tested on the real system (files in temp dirs, locks held by forked children).
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/sockios.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>

#include "Tarvo/Debug.h"
#include "Tarvo/DirNode.h"
#include "Tarvo/DisplayPointer.h"
#include "Tarvo/Exception.h"
#include "Tarvo/FileLock.h"
#include "Tarvo/IntrospectionMap.h"
#include "Tarvo/Locking.h"
#include "Tarvo/Mappings.h"
#include "Tarvo/Random.h"
#include "Tarvo/Util.h"
#include "Tarvo/UtilHelpers.h"
#include "Tarvo/UtilNet.h"
#include "common/TestSupport.h"
#include "util/ProcParse.h"

namespace Tarvo::Test {
namespace {

using namespace ::testing;

// Keeps what is traced on it, level by level.
struct TraceRecorder : Platform::DebugHandler {
  explicit TraceRecorder(uint32_t levels = kAllLevels) : DebugHandler("Recorder", levels, false) {}
  void enabledIs(unsigned, bool) override {}  // not registered: nobody switches its levels
  void dump(Platform::DebugStream& stream, unsigned level, const char*, int, const char*) override {
    traced[level] += stream.str() + "\n";
  }
  bool has(unsigned level, const std::string& s) const { return traced[level].find(s) != s.npos; }

  std::string traced[10];
};

// The message of the library exception that `body` throws, or "no exception".
std::string thrownMessage(const std::function<void()>& body) {
  try {
    body();
  } catch (const Exception& e) {
    return e.message();
  }
  return "no exception";
}

// Open descriptors, counted once the unwinder has set itself up: the first backtrace of a
// process opens a pipe that the unwinder keeps, which is no leak of the code under test.
const auto settledFdCount = [] { return Backtrace(true), openFdCount(); };

// A forked child that runs `setup` (takes a lock, opens a file), reports in `setupOk` whether it
// succeeded and then stays as it is until release() or destruction kill it, or this process ends.
struct WaitingChild {
  explicit WaitingChild(const std::function<bool()>& setup) {
    int ready[2] = {-1, -1};
    if (::pipe2(ready, O_CLOEXEC) == 0 && (pid = ::fork()) == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // even through an exec, should the test crash
      for (char ok = setup() ? 'y' : 'n'; ::write(ready[1], &ok, 1) == 1;) {
        ::pause();
      }
      ::_exit(1);
    }
    char ok = 'n';
    ::close(ready[1]);
    setupOk = pid > 0 && ::read(ready[0], &ok, 1) == 1 && ok == 'y';
    ::close(ready[0]);
  }
  ~WaitingChild() { release(); }
  void release() {
    if (pid > 0 && ::kill(pid, SIGKILL) == 0) {
      ::waitpid(std::exchange(pid, -1), nullptr, 0);
    }
  }

  pid_t pid = -1;
  bool setupOk = false;
};

TEST(Helpers, HashesDumpsAndPrintersGiveTheirExactTexts) {
  EXPECT_EQ(Util::hash(std::string()), 0x811c9dc5u);
  EXPECT_EQ(Util::hash(std::string("foobar")), 0xbf9cf968u);
  EXPECT_EQ(Util::hash64("foobar", 6), 0x85944171f73967e8ull);
  EXPECT_NE(Util::hash(std::string("a\0b", 3)), Util::hash(std::string("a")));

  const unsigned char bytes[] = {1, 2, 3, 4, 5, 0xab, 0xc0, 0x0f, 0xff};
  EXPECT_EQ(dumpHex(bytes, 9), "01020304 05abc00f ff");
  EXPECT_EQ(dumpHex(bytes, 4) + dumpHex(bytes, -3), "01020304");

  const int pair[2] = {0x01020304, 5};
  auto printer = Platform::getValuePrinter("Test::Pair", sizeof pair);
  EXPECT_EQ(printer->toString(pair), dumpHex(pair, sizeof pair));
  IntrospectionMap::insert("Test::Pair", [](const void* v) -> const std::string {
    return std::to_string(static_cast<const int*>(v)[1]);
  });
  EXPECT_EQ(printer->toString(pair), "5");
  IntrospectionMap::insert("Test::Pair", [](const void*) -> const std::string { return ""; });
  EXPECT_EQ(printer->toString(pair), dumpHex(pair, sizeof pair));

  std::ostringstream os;
  os << std::setw(20) << std::setfill('*') << DisplayPointer(reinterpret_cast<void*>(0xabc)) << " "
     << DisplayPointer(nullptr) << std::setw(3) << 7;
  // The pointer ignores the caller's width and fill and leaves them to the next item.
  EXPECT_EQ(os.str(), "0x00000abc" + std::string(19, '*') + " NULL**7");

  EXPECT_EQ(Util::resolveSym(nullptr, "getpid"), reinterpret_cast<void*>(&getpid));
  EXPECT_EQ(Util::resolveSym(nullptr, "tarvoNoSuchSymbol"), nullptr);
  EXPECT_THAT(Util::resolveSymError(), HasSubstr("tarvoNoSuchSymbol"));
  EXPECT_EQ(Util::resolveSymError(), nullptr) << "reading the reason clears it";
  TraceRecorder trace;
  EXPECT_EQ(Util::resolveSym(&trace, nullptr), nullptr);
  EXPECT_THAT(Util::resolveSymError(), NotNull());
  EXPECT_TRUE(trace.has(1, "Util::resolveSym() symbolName:(null) unable to resolve:"));

  // The heap checker's hooks are looked up (and the lookup traced) only under HEAPCHECK.
  TraceRecorder heapTrace;
  ::unsetenv("HEAPCHECK");
  EXPECT_EQ(HeapChecker::resolveAllocSym(&heapTrace), nullptr);
  EXPECT_EQ(HeapChecker::resolveFreeSym(&heapTrace), nullptr);
  EXPECT_EQ(heapTrace.traced[1] + heapTrace.traced[5], "");
  ::setenv("HEAPCHECK", "", 1);
  EXPECT_EQ(HeapChecker::resolveFreeSym(&heapTrace), nullptr);
  ::unsetenv("HEAPCHECK");
  EXPECT_TRUE(heapTrace.has(1, "symbolName:HeapChecker_RecordClientFree unable to resolve:"));
}

// The child runs print the seed, the first string drawn and whether a second setSeed repeats it.
TEST(Random, SeedFromEnvironmentRepeatsAcrossProcesses) {
  if (isChildRun()) {
    Random::setSeed();
    std::string first = Random::randomString(16);
    Random::setSeed();
    std::cout << "\nseed=" << Random::getSeed() << " " << dumpHex(first.data(), 16) << " "
              << (Random::randomString(16) == first) << "\n";
    return;
  }
  std::string traced;
  auto run = [&](const std::string& seed) {
    ChildResult child = runSelf("Random.*", {"ZQTEST_RANDSEED=" + seed});
    traced += child.err;
    std::string out = child.out.substr(child.out.find("\nseed=") + 1);
    return out.substr(0, out.find('\n'));
  };
  std::string one = run("42");
  EXPECT_THAT(one, AllOf(StartsWith("seed=42 "), EndsWith(" 1"))) << traced;
  EXPECT_THAT(traced, HasSubstr("Tarvo::Random::setSeed(), setting seed to 42"));
  EXPECT_EQ(run("42"), one);
  EXPECT_NE(run("43").substr(8), one.substr(8));
  EXPECT_THAT(run("abc"), StartsWith("seed=0 "));
}

// The permission bits of `path`, or 0 when it does not exist.
mode_t modeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(FilesTest, FilesGetExactModesAndFailuresAnswerAsTold) {
  TempDir dir;
  TraceRecorder trace;
  int fdsBefore = settledFdCount();
  mode_t oldMask = ::umask(077);
  Util::fileWrite(trace, dir.file("state"), "first content", false);
  Util::fileWrite(trace, dir.file("state"), std::string("ab\0cd", 5), false);
  EXPECT_TRUE(Util::touch(trace, dir.file("state")) && Util::touch(trace, dir.file("new")));
  EXPECT_EQ(Util::fileSize(trace, dir.file("state")), 5u);
  EXPECT_EQ(Util::fileRead(trace, dir.file("state"), true), "ab");
  EXPECT_EQ(Util::mkpath(dir.file("x/y/z/"), 0751), 0);
  EXPECT_EQ(Util::mkpath(dir.file("x/y/z"), 0700), 0);
  EXPECT_EQ(::umask(oldMask), 077u);
  for (const char* path : {"state", "new", "x", "x/y", "x/y/z"}) {
    EXPECT_EQ(modeOf(dir.file(path)), path[0] == 'x' ? 0751u : 0666u) << path;
  }
  EXPECT_TRUE(Util::mkpath(dir.file("new/sub/dir"), 0755) < 0 && errno == ENOTDIR);

  std::string noDir = dir.file("no-such-dir/state");
  EXPECT_EQ(thrownMessage([&] { Util::fileWrite(trace, noDir, "42", false); }), "42");
  EXPECT_TRUE(trace.has(0, "Util::fileWrite() unable to open " + noDir + " reason:No such file"));
  EXPECT_NO_THROW(Util::fileWrite(trace, noDir, "42", true));
  EXPECT_FALSE(Util::touch(trace, noDir));
  EXPECT_EQ(Util::fileSize(trace, noDir), 0u);
  EXPECT_TRUE(Util::fileRemove(trace, noDir));
  EXPECT_FALSE(Util::fileRemove(trace, dir.file("x")));

  const char* faults[][3] = {{"a/b", "b", "absolute path is not absolute"},
                             {"/a/b", "/a/b", "trailing path longer than absolute path"},
                             {"/a/b", "x", "trailing path is not a terminal substring"}};
  for (auto& [path, tail, text] : faults) {
    EXPECT_THAT(thrownMessage([&] { Util::trimpath(path, tail); }),
                AllOf(StartsWith("Util:trimpath:"), HasSubstr(text)));
  }
  // trimpath removes trailing directories until one is not empty; a missing one is skipped.
  std::ofstream(dir.file("x/keep")) << "";
  EXPECT_EQ(Util::trimpath(dir.file("x/y/z"), "x/y/z"), -1);
  EXPECT_EQ(modeOf(dir.file("x/y")), 0u);
  ::unlink(dir.file("x/keep").c_str());
  EXPECT_EQ(Util::trimpath(dir.file("x/y/z"), "/x/y/z"), 0);
  EXPECT_EQ(modeOf(dir.file("x")), 0u);
  EXPECT_EQ(modeOf(dir.path()), 0700u);
  EXPECT_EQ(openFdCount(), fdsBefore);
}

TEST(FilesTest, MkpathThroughDotDotLeavesExistingDirectoriesAlone) {
  TempDir dir;
  ASSERT_EQ(::chmod(dir.path().c_str(), 01777), 0);
  EXPECT_EQ(Util::mkpath(dir.file("a/../b"), 0700), 0);
  EXPECT_EQ(modeOf(dir.path()), 01777u);
  EXPECT_EQ(modeOf(dir.file("a")) | modeOf(dir.file("b")), 0700u);
  if (::geteuid() != 0) {
    return;
  }
  // A user who may create entries here but not change the directory's mode.
  EXPECT_EQ(1, runInChild([&] {
                 return ::setresgid(65534, 65534, 65534) == 0 &&
                        ::setresuid(65534, 65534, 65534) == 0 &&
                        Util::mkpath(dir.file("c/../d/e"), 0750) == 0;
               }).exitCode);
  EXPECT_EQ(modeOf(dir.path()), 01777u);
  EXPECT_EQ(modeOf(dir.file("c")) & modeOf(dir.file("d")) & modeOf(dir.file("d/e")), 0750u);
}

TEST(FilesTest, PathsAndNamesHoldingNulAreRefusedAndTouchNothing) {
  TempDir dir;
  TraceRecorder trace;
  int fdsBefore = settledFdCount();
  const std::string real = dir.file("real");
  const std::string cut = real + std::string(1, '\0') + "tail";
  Util::fileWrite(trace, real, "content", false);
  ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0700), 0);
  int fd = ::open(real.c_str(), O_RDWR);
  auto refused = [](const std::function<bool()>& failed) {
    errno = 0;
    return failed() && errno == EINVAL;
  };
  EXPECT_TRUE(refused([&] { return !Util::fileRemove(trace, cut); }));
  EXPECT_TRUE(refused([&] { return !Util::fileExists(trace, cut); }));
  EXPECT_TRUE(refused([&] { return Util::fileSize(trace, cut) == 0; }));
  EXPECT_TRUE(refused([&] { return Util::fileRead(trace, cut, true).empty(); }));
  EXPECT_TRUE(refused([&] { return !Util::touch(trace, cut); }));
  EXPECT_TRUE(refused([&] { return Util::truncate(trace, cut, fd, 0) == -1; }));
  EXPECT_TRUE(refused([&] { return Util::mkpath(dir.file(std::string("new\0", 4)), 0700) < 0; }));
  EXPECT_TRUE(refused([&] { return !DirNode(trace, dir.file(std::string("sub\0", 4))).isOpen(); }));
  EXPECT_EQ(thrownMessage([&] { Util::fileWrite(trace, cut, "other", false); }), "other");
  Util::fileWrite(trace, cut, "other", true);
  ::close(fd);
  EXPECT_EQ(Util::fileRead(trace, real, true), "content");
  EXPECT_FALSE(Util::fileExists(trace, dir.file("new")));

  const std::string tail("sub\0x", 5);
  EXPECT_THAT(thrownMessage([&] { Util::trimpath(dir.file(tail), tail); }),
              EndsWith("absolute path holds a NUL byte"));
  EXPECT_TRUE(Util::fileExists(trace, dir.file("sub")));
  // Lock files named a\0x and a\0y would otherwise be one file.
  EXPECT_THAT(thrownMessage([&] { FileLock(trace, dir.path(), std::string("a\0x", 3)); }),
              EndsWith("Tarvo::FileLock::FileLock() unexpected NUL byte in filename: a\\0x"));
  EXPECT_THAT(thrownMessage([&] { FileLock(trace, dir.file(tail), "a"); }),
              EndsWith("unexpected NUL byte in directory: " + dir.file("sub\\0x")));
  EXPECT_THAT(thrownMessage([&] { Util::createAndBindSocket(nullptr, std::string("tarvo\0", 6)); }),
              EndsWith("WriterLock::createAndBindSocket() unexpected NUL byte in name: tarvo\\0"));
  EXPECT_EQ(openFdCount(), fdsBefore);
}

TEST(FilesTest, ReadsStopAtTheFirstNulAndTheLimitQueriesTraceTheirFailures) {
  TempDir dir;
  TraceRecorder trace;
  EXPECT_EQ(Util::fileRead(trace, "/dev/zero", true), "");
  const std::string big = dir.file("big");
  Util::fileWrite(trace, big, std::string(Util::kFileReadLimit + 1, 'x'), false);
  errno = 0;
  EXPECT_EQ(Util::fileRead(trace, big, true), std::string(Util::kFileReadLimit, 'x'));
  EXPECT_EQ(errno, EFBIG);
  EXPECT_TRUE(trace.has(1, "Util::fileRead() " + big + " holds more than the limit of 16777216"));
  EXPECT_EQ(Util::fileRead(trace, big, true, 3), "xxx");

  // A pipe whose writer never stops: the read ends at the limit, and the writer then fails.
  int pipeFds[2];
  ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
  std::thread writer([fd = pipeFds[1]] {
    ::signal(SIGPIPE, SIG_IGN);
    while (::write(fd, "yyyy", 4) == 4) {
    }
    ::close(fd);
  });
  std::string source = "/proc/self/fd/" + std::to_string(pipeFds[0]);
  EXPECT_EQ(Util::fileRead(trace, source, true, 100000), std::string(100000, 'y'));
  ::close(pipeFds[0]);
  writer.join();

  const std::string file = dir.file("f");
  EXPECT_FALSE(Util::fileExists(trace, file));
  EXPECT_TRUE(trace.has(5, "Util::fileExists() checking if " + file + " exists, stat result: -1"));
  Util::fileWrite(trace, file, "0123456789", false);
  EXPECT_TRUE(Util::fileExists(trace, file) && Util::fileExists(trace, dir.path()));

  int fd = ::open(file.c_str(), O_RDWR);
  int readOnly = ::open(file.c_str(), O_RDONLY);
  EXPECT_EQ(Util::truncate(trace, "label", fd, 4), 0);
  EXPECT_EQ(Util::fileSize(trace, readOnly), 4u);
  EXPECT_EQ(Util::truncate(trace, "label", fd, 6), 0);
  EXPECT_EQ(Util::fileRead(trace, file, true), "0123");  // grown with NUL bytes
  EXPECT_EQ(Util::truncate(trace, "label", readOnly, 0), -1);
  EXPECT_TRUE(trace.has(0, "Util::truncate() ftruncate() size:0 error: label: "));
  EXPECT_EQ(Util::fileSize(trace, file), 6u);
  ::close(fd);
  ::close(readOnly);
  EXPECT_EQ(Util::fileSize(trace, fd), 0u);
  EXPECT_TRUE(trace.has(
      5, "Util::fileSize() unable to fstat fd " + std::to_string(fd) + ": Bad file descriptor"));

  char cwd[PATH_MAX];
  EXPECT_EQ(Util::getCwd(trace), ::getcwd(cwd, sizeof cwd));
  // A working directory that was removed has no path any more.
  EXPECT_EQ(
      1, runInChild([&] {
           const std::string gone = "Util::getCwd() getcwd() failed:No such file or directory";
           return ::mkdir(dir.file("cwd").c_str(), 0700) == 0 &&
                  ::chdir(dir.file("cwd").c_str()) == 0 && ::rmdir(dir.file("cwd").c_str()) == 0 &&
                  thrownMessage([&] { Util::getCwd(trace); }) == gone && trace.has(0, gone);
         }).exitCode);
}

TEST(DirNodeTest, ReadsEveryEntryRewindsAndOpensOnlyDirectories) {
  TempDir dir;
  TraceRecorder trace;
  Util::touch(trace, dir.file("a"));
  ::mkdir(dir.file("sub").c_str(), 0700);
  auto names = [](const DirNode& node) {
    std::set<std::string> sorted;
    while (const dirent* entry = node.readEntry()) {
      sorted.insert(entry->d_name);
    }
    return ::testing::PrintToString(sorted);
  };
  DirNode node(trace, dir.path());
  EXPECT_EQ(names(node), "{ \".\", \"..\", \"a\", \"sub\" }");
  EXPECT_EQ(node.readEntry(), nullptr);  // stays at the end
  node.openDir();
  EXPECT_EQ(names(node), "{ \".\", \"..\", \"a\", \"sub\" }");

  // A file where a directory was expected is normal in a changing tree: traced at 9 only.
  DirNode onFile(trace, dir.file("a"));
  EXPECT_EQ(onFile.readEntry(), nullptr);
  std::string failed = "DirNode::DirNode() failed to open " + dir.file("a");
  EXPECT_TRUE(trace.has(9, failed + " errno: Not a directory") && !trace.has(1, failed));
  EXPECT_TRUE(trace.has(5, "cannot read " + dir.file("a") + " because the directory is not open"));
}

TEST(FileLockTest, OneHolderAtATimeAndMisuseIsRefusedAsTold) {
  TempDir dir;
  TraceRecorder trace;
  int fdsBefore = settledFdCount();
  auto lockInChild = [&] {
    return runInChild([&] { return FileLock(trace, dir.file("x/y"), "role.lock").lock(); })
        .exitCode;
  };
  {
    FileLock first(trace, dir.file("x/y"), "role.lock");
    FileLock second(trace, dir.file("x/y"), "role.lock");
    int lowestFree = ::dup(0);
    ::close(lowestFree);
    ASSERT_TRUE(first.lock());
    EXPECT_EQ(::fcntl(lowestFree, F_GETFD), FD_CLOEXEC);  // the lock's descriptor
    EXPECT_FALSE(second.lock());
    EXPECT_TRUE(trace.has(
        1, "FileLock::lock() error: conflicting lock held on file:" + dir.file("x/y/role.lock")));
    EXPECT_EQ(lockInChild(), 0);
    first.release();
    EXPECT_EQ(::access(first.file().c_str(), F_OK), 0);
    EXPECT_TRUE(second.lock());
  }
  EXPECT_EQ(lockInChild(), 1);  // the destructor released `second`

  EXPECT_THAT(thrownMessage([&] { FileLock(trace, "/tmp", "a/b"); }),
              AllOf(StartsWith("FileLock:FileLock:"),
                    EndsWith("Tarvo::FileLock::FileLock() unexpected '/' in filename: a/b")));
  EXPECT_FALSE(FileLock(trace, dir.path(), "x").lock());  // a directory by that name
  std::ofstream(dir.file("plain")) << "";
  EXPECT_THAT(
      thrownMessage([&] { FileLock(trace, dir.file("plain/sub"), "x").lock(); }),
      AllOf(StartsWith("FileLock:lock:"), EndsWith("FileLock::lock() unexpected mkpath() error " +
                                                   dir.file("plain/sub") + ": Not a directory")));

  std::optional<FileLock> lock;
  lock.emplace(trace, dir.path(), "role.lock");
  std::string notHeld =
      "FileLock::release() attempting to release a lock that is not currently held. File:" +
      lock->file();
  ASSERT_TRUE(lock->lock());
  lock->release();
  EXPECT_THAT(thrownMessage([&] { lock->release(); }),
              AllOf(StartsWith("FileLock:release:"), EndsWith(notHeld)));
  ASSERT_TRUE(lock->lock());
  std::string owner = " of owner pid:" + std::to_string(::getpid());
  EXPECT_EQ(1, runInChild([&] {
                 return thrownMessage([&] { lock->release(); })
                     .ends_with("FileLock::release() called from child process:" +
                                std::to_string(::getpid()) + owner);
               }).exitCode);
  // A child destroying its copy of the lock closes its own descriptor only.
  EXPECT_EQ(0, runInChild([&] {
                 return lock.reset(), FileLock(trace, dir.path(), "role.lock").lock();
               }).exitCode);
  FileLock probe(trace, dir.path(), "role.lock");
  EXPECT_FALSE(probe.lock());
  // closeFd drops the lock without an unlock; release then finds nothing held.
  lock->closeFd();
  lock->closeFd();
  EXPECT_THAT(thrownMessage([&] { lock->release(); }), EndsWith(notHeld));
  EXPECT_TRUE(probe.lock());
  probe.release();
  EXPECT_EQ(openFdCount(), fdsBefore);
}

TEST(LockingTest, OnlyTheHoldingThreadOwnsAndMayUnlock) {
  Locking::Lock lock;
  const auto refused = MatchesRegex(
      "Locking:unlock:[0-9]+: Tarvo::Locking::unlock\\(\\) "
      "attempting to release a lock that is not currently held");
  EXPECT_THAT(thrownMessage([&] { lock.unlock(); }), refused);
  Locking::ConditionalGuard(lock).releaseIs(false);  // told to keep the lock held
  std::thread([&] {
    EXPECT_FALSE(lock.owns_lock() || lock.try_lock());
    EXPECT_THAT(thrownMessage([&] { lock.unlock(); }), refused);
  }).join();
  EXPECT_TRUE(lock.owns_lock());  // neither the guard nor the refused unlock released it
  lock.unlock();
  {
    Locking::ConditionalGuard guard(lock);
    lock.unlock();  // the guard then finds nothing to release
  }
  Locking::ConditionalGuard{lock};  // a plain guard releases what it took
  EXPECT_TRUE(!lock.owns_lock() && lock.try_lock());
  lock.unlock();
}

TEST(ProcIntrospectionTest, ParsersHandleCraftedAndMalformedTexts) {
  TraceRecorder trace;
  using namespace Util::Impl;
  EXPECT_EQ(procTitleFromStatus(trace, "Umask:\t0022\nName:\tmy agent \t\nName:\tx\n", 7),
            "my agent");
  EXPECT_EQ(procTitleFromStatus(trace, "State:\tR\n", 7), "");
  // Field 2 is "(a) b)"; doubled blanks collapse.
  std::string stat = "42 (a) b)  S  4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 987654 23";
  EXPECT_EQ(procStartTimeFromStat(trace, stat, "/p"), "987654");
  for (const std::string line : {"1 (x)", "1 x"}) {
    EXPECT_THAT(
        thrownMessage([&] { procStartTimeFromStat(trace, line, "/p"); }),
        EndsWith("input not long enough to contain start time. file: /p line: \"" + line + "\""));
  }
  EXPECT_THAT(thrownMessage([&] { procStartTimeFromStat(trace, "1 (x) S 4 5 6", "/p"); }),
              EndsWith("Failed to parse start time from file: /p line: \"1 (x) S 4 5 6\" "
                       "procStartTime.size():0 tokPos:4 startTimeFieldPos:19"));

  std::string netUnix =
      "Num       RefCount Protocol Flags    Type St Inode Path\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 1111 @agent.sock.old\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 2222 @agent.sock\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 abc @broken\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 -5 @negative\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 777777777777777777777 @overlong\n"
      "0000000000000000: 00000002 00000000 00010000 0005 01 12x @suffixed\n";
  EXPECT_EQ(socketInodeFromNetUnix(trace, netUnix, "@agent.sock"), 1111u);
  // A column that is not a plain number in range is no inode (strtoul once made -5 and the
  // overlong column into huge ones).
  for (const char* name : {"broken", "negative", "overlong", "suffixed"}) {
    EXPECT_EQ(socketInodeFromNetUnix(trace, netUnix, name), 0u) << name;
  }

  std::istringstream maps(
      "7f1200000000-7f1200021000 rw-p 00000000 00:00 0 \n"
      "7f1300000000-7f1300001000 ---p 1f0002000 fd:01 12345678901 /opt/my dir/lib x.so\n"
      "7f1300001000-7f1300002000 r--p 1f0002000 fd:01 12345678901 /opt/my dir/lib x.so\n"
      "not a mapping line\n"
      "7f1400000000-7f1400001000 r--p 00000000 00:00 0\n");
  MappingInfos infos = PidMappings::parse(maps);
  ASSERT_EQ(infos.size(), 3u);  // parsing stops at the malformed line
  EXPECT_EQ(infos[0].path, "");
  EXPECT_EQ(infos[2].inode, 12345678901u);
  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x7f1300000fffu)).perms, "---p");
  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x7f1300002000u)).end, 0u);
  EXPECT_EQ(infos.find("/opt/my dir/lib x.so", 0x1f0002000u).start, 0x7f1300001000u);
  EXPECT_EQ(infos.find("/opt/my dir/lib x.so", 0).start, 0u);
}

TEST(ProcIntrospectionTest, LiveProcessesAnswerAndVanishedOnesGiveEmptyResults) {
  TraceRecorder trace;
  EXPECT_EQ(Util::readProcTitle(0, false),
            std::string(program_invocation_short_name).substr(0, 15));
  // Run with arguments, of which only the first is reported.
  EXPECT_EQ(Util::readPidCmdline(trace, ::getpid()), program_invocation_name);
  EXPECT_GT(std::stoull(Util::readProcStartTime(trace, 0)), 0u);
  MappingInfo code =
      PidMappings::populate(getpid()).find(reinterpret_cast<const void*>(&PidMappings::populate));
  EXPECT_EQ(code.perms.substr(0, 3), "r-x");
  EXPECT_NE(code.path.find("libTarvo.so"), std::string::npos) << code;

  std::string statusMissing = "Couldn't access status file:/proc/" + std::to_string(INT_MAX);
  EXPECT_EQ(Util::readProcTitle(trace, INT_MAX, true) + Util::readProcStartTime(trace, INT_MAX) +
                Util::readPidCmdline(trace, INT_MAX),
            "");
  EXPECT_TRUE(trace.has(5, statusMissing) && !trace.has(1, statusMissing));
  EXPECT_EQ(Util::readProcTitle(trace, INT_MAX, false), "");
  EXPECT_TRUE(trace.has(1, statusMissing));

  WaitingChild child([] { return true; });
  pid_t pid = child.pid;
  size_t seen = PidMappings::populate(pid).size();
  EXPECT_GT(seen, 0u);
  child.release();
  EXPECT_TRUE(PidMappings::populate(pid).empty());
  EXPECT_EQ(PidMappings::mappingInfos(pid).size(), seen);  // the cache outlives the process

  Util::fileWrite(trace, "/proc/self/coredump_filter", "35", false);  // 0x23
  Util::includeShmemInCore();
  EXPECT_EQ(Util::fileRead(trace, "/proc/self/coredump_filter", true), "0000002b\n");
}

TEST(ProcIntrospectionTest, SocketAndLockOwnersAreFoundAndOpenersAreNot) {
  TempDir tempDir;
  char resolved[PATH_MAX];
  std::string dir = ::realpath(tempDir.path().c_str(), resolved);
  std::string socketName = "tarvo-proc-test-" + std::to_string(::getpid());
  TraceRecorder trace(0xff);  // not level 9, which traces every descriptor walked
  int fdsBefore = settledFdCount();
  // Peers connect with the name unpadded, cut at 107 bytes.
  auto connects = [](int server, const std::string& name) {
    sockaddr_un peer{AF_UNIX, {}};
    socklen_t size = sizeof(sa_family_t) + 1 + name.copy(peer.sun_path + 1, 107);
    int client = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    bool ok = ::listen(server, 1) == 0 &&
              ::connect(client, reinterpret_cast<sockaddr*>(&peer), size) == 0;
    return ::close(client) == 0 && ok;
  };
  int sd = Util::createAndBindSocket(nullptr, socketName);
  EXPECT_EQ(Util::readSocketPid(trace, socketName), static_cast<unsigned>(::getpid()));
  EXPECT_TRUE(connects(sd, socketName));
  EXPECT_THAT(thrownMessage([&] { Util::createAndBindSocket(nullptr, socketName); }),
              AllOf(StartsWith("WriterLock::createAndBindSocket() bind() failed for socket:0x"),
                    EndsWith(" error: Address already in use")));
  ::close(sd);
  EXPECT_EQ(Util::readSocketPid(trace, socketName), 0u);
  sd = Util::createAndBindSocket(nullptr, socketName + std::string(150, 'n'));
  EXPECT_TRUE(connects(sd, socketName + std::string(150, 'n')));
  ::close(sd);

  std::optional<FileLock> held;
  {
    WaitingChild holder([&] { return held.emplace(trace, dir, "role.lock").lock(); });
    ASSERT_TRUE(holder.setupOk);
    EXPECT_EQ(Util::readLockPid(trace, dir + "/role.lock"), static_cast<unsigned>(holder.pid));
    EXPECT_EQ(Util::readLockPid(trace, dir + "/role.loc"), 0u);  // targets compare whole
  }
  // A classic lock on another file puts the opener's pid into /proc/locks.
  WaitingChild opener([&] {
    int other = ::open((dir + "/other").c_str(), O_RDWR | O_CREAT, 0600);
    struct flock record {};
    record.l_type = F_WRLCK;
    return ::open((dir + "/role.lock").c_str(), O_RDONLY) >= 0 &&
           ::fcntl(other, F_SETLK, &record) == 0;
  });
  ASSERT_TRUE(opener.setupOk);
  EXPECT_EQ(Util::readLockPid(trace, dir + "/role.lock"), 0u);
  opener.release();
  EXPECT_EQ(openFdCount(), fdsBefore);
}

// Re-executed with TARVO_VPTR_CHILD set, this binary holds a Tarvo::Exception (its virtual
// table lives in libTarvo.so), prints the object's vptr and waits to be killed. The fresh exec
// loads libTarvo.so at an address of its own.
const bool childServed = [] {
  if (std::getenv("TARVO_VPTR_CHILD") == nullptr) {
    return false;
  }
  Exception object("held by the child", false);
  std::printf("%p\n", *reinterpret_cast<void**>(&object));
  std::fflush(stdout);
  for (;;) {
    pause();
  }
}();

TEST(TypenameFromVptr, NamesTypeInAnotherProcessAndExplainsBadTables) {
  ASSERT_FALSE(childServed);
  int fromChild[2];
  ASSERT_EQ(pipe2(fromChild, O_CLOEXEC), 0);
  // The exec closes the child's report pipe, so setupOk stays false: only the pid is used.
  WaitingChild child([&] {
    dup2(fromChild[1], STDOUT_FILENO);
    setenv("TARVO_VPTR_CHILD", "1", 1);
    return execl("/proc/self/exe", "child", static_cast<char*>(nullptr)) == 0;
  });
  close(fromChild[1]);
  char line[64] = {};
  EXPECT_GT(read(fromChild[0], line, sizeof line - 1), 0);
  close(fromChild[0]);
  const void* vptr = reinterpret_cast<const void*>(std::strtoull(line, nullptr, 16));

  std::string error;
  EXPECT_STREQ(Util::typenameFromVptr(child.pid, vptr, error), typeid(Exception).name()) << error;
  // A pointer right at the start of its mapping has no type-information slot before it.
  void* start = reinterpret_cast<void*>(PidMappings::mappingInfos(child.pid).find(vptr).start);
  EXPECT_EQ(Util::typenameFromVptr(child.pid, start, error), nullptr);
  EXPECT_THAT(error, AllOf(StartsWith("Bad vptr:0x"), HasSubstr("mapping:MappingInfo { start:0x")));
  pid_t pid = child.pid;
  child.release();
  EXPECT_EQ(Util::typenameFromVptr(pid, vptr, error), nullptr);
  EXPECT_EQ(error, "Could not find mapping for vptr:" + DisplayPointer(vptr).toString() +
                       " otherPid:" + std::to_string(pid));

  // Word arrays posing as a virtual table and type information in the program's data.
  static uintptr_t fakeVtable[3] = {0x10, 0x10, 0x10}, fakeTypeInfo[3] = {0x10, 0x10, 0x10};
  fakeVtable[0] = 0x10;  // as it started, should the test be repeated
  auto heap = std::make_unique<uintptr_t[]>(64);
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_THAT(error, AllOf(StartsWith("No typeInfo mapping found for vptr:"),
                           HasSubstr("typeInfoPtr:0x00000010")));
  fakeVtable[0] = reinterpret_cast<uintptr_t>(&fakeTypeInfo[0]);
  fakeTypeInfo[1] = reinterpret_cast<uintptr_t>(heap.get());  // the name lies outside the file
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_THAT(error,
              StartsWith("TypeInfo is not stored in proper mapping. Expected:MappingInfo {"));

  // A mapping that reaches past the end of its file: touching the part beyond raises SIGBUS.
  TempDir dir;
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  int fd = ::open(dir.file("short").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(page)), 0);
  auto* map = static_cast<char*>(::mmap(nullptr, 2 * page, PROT_READ, MAP_SHARED, fd, 0));
  ASSERT_NE(map, MAP_FAILED);
  const char* beyond = map + page + 64;
  EXPECT_EQ(Util::typenameFromVptr(getpid(), beyond, error), nullptr);
  EXPECT_THAT(error, StartsWith("Could not read typeInfo ptr for vptr:"));
  // The slot is inside the file, the type information it points at is not.
  ASSERT_EQ(::pwrite(fd, &beyond, sizeof beyond, 64), static_cast<ssize_t>(sizeof beyond));
  EXPECT_EQ(Util::typenameFromVptr(getpid(), map + 64 + sizeof beyond, error), nullptr);
  EXPECT_THAT(error, StartsWith("Could not read typeInfo for vptr:"));
  // Slot and type information inside the file (the slot points at itself as the type
  // information, whose name word follows), the name they lead to beyond it.
  const char* typeInfo[2] = {map + 64, beyond};
  ASSERT_EQ(::pwrite(fd, typeInfo, sizeof typeInfo, 64), static_cast<ssize_t>(sizeof typeInfo));
  EXPECT_EQ(Util::typenameFromVptr(getpid(), map + 64 + sizeof beyond, error), nullptr);
  EXPECT_THAT(error, StartsWith("Could not read type name at:"));
  ::munmap(map, 2 * page);
  ::close(fd);
}

constexpr int kNoPidNamespace = 77;

ino_t inodeOf(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Runs `body` as process 1 of a fresh pid namespace with its own /proc, so that the default
// network namespace (that of process 1) is one the test may enter, whatever the machine's real
// init allows. Called in a forked child; kNoPidNamespace when that cannot be arranged.
int runAsInit(const std::function<int()>& body) {
  if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return kNoPidNamespace;
  }
  pid_t init = fork();
  if (init == 0) {
    _exit(mount("proc", "/proc", "proc", 0, nullptr) == 0 ? body() : kNoPidNamespace);
  }
  int status = 0;
  return waitpid(init, &status, 0) == init && WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

TEST(Netns, SocketsLandInTheDefaultNamespaceOrFallBackToLocal) {
  EXPECT_TRUE(Netns::setnsByName("tarvo-no-such-ns", CLONE_NEWNET) == -1 && errno == ENOENT);
  EXPECT_TRUE(Netns::setnsByName("../../proc/1/ns/net", CLONE_NEWNET) == -1 && errno == EINVAL);
  // Without capabilities the default namespace cannot be entered.
  EXPECT_EQ(1, runInChild([] {
                 __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
                 __user_cap_data_struct data[2] = {};
                 TraceRecorder trace;
                 return syscall(SYS_capset, &header, data) == 0 &&
                        Util::socket(&trace, AF_UNIX, SOCK_DGRAM, 0) >= 0 &&
                        trace.has(2, "Util::socket() setnsByName() to default failure");
               }).exitCode);

  const std::string name = "tarvo-test-" + std::to_string(getpid());
  if (geteuid() != 0 || std::system(("ip netns add " + name + " 2>/dev/null").c_str()) != 0) {
    GTEST_SKIP() << "needs root and a working 'ip netns add' to make a namespace";
  }
  // The exit code has one bit per failed expectation.
  ChildResult child = runInChild([&name] {
    return runAsInit([&name] {
      const ino_t defaultNs = inodeOf("/proc/1/ns/net");
      const ino_t testNs = inodeOf("/var/run/netns/" + name);
      ino_t socketNs = 0, threadNsAfter = 0;
      std::thread([&] {
        if (Netns::setnsByName(name.c_str(), CLONE_NEWNET) == 0) {
          int sd = Util::socket(nullptr, AF_INET, SOCK_DGRAM, 0);
          threadNsAfter = inodeOf("/proc/thread-self/ns/net");
          socketNs = inodeOf("/proc/self/fd/" + std::to_string(ioctl(sd, SIOCGSKNS)));
        }
      }).join();
      return (testNs == defaultNs) | (socketNs != defaultNs) << 1 | (threadNsAfter != testNs) << 2;
    });
  });
  EXPECT_EQ(std::system(("ip netns del " + name).c_str()), 0);
  if (child.exitCode == kNoPidNamespace) {
    GTEST_SKIP() << "cannot make a pid namespace to stand in for the default one";
  }
  EXPECT_EQ(child.exitCode, 0) << child.err;
}

}  // namespace
}  // namespace Tarvo::Test
