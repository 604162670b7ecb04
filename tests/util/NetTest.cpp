#include <linux/capability.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "Tarvo/UtilNet.h"
#include "util/SystemTestSupport.h"

namespace Tarvo {
namespace {

using Test::thrownMessage;

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

TEST(Netns, SocketFromAnotherNamespaceLandsInDefaultOne) {
  const std::string name = "tarvo-test-" + std::to_string(getpid());
  if (geteuid() != 0 || std::system(("ip netns add " + name + " 2>/dev/null").c_str()) != 0) {
    GTEST_SKIP() << "needs root and a working 'ip netns add' to make a namespace";
  }
  // The exit code has one bit per failed expectation.
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([&name] {
    return runAsInit([&name] {
      const ino_t defaultNs = inodeOf("/proc/1/ns/net");
      const ino_t testNs = inodeOf("/var/run/netns/" + name);
      ino_t socketNs = 0;
      ino_t threadNsAfter = 0;
      std::thread([&] {
        if (Netns::setnsByName(name.c_str(), CLONE_NEWNET) == 0) {
          int sd = Util::socket(nullptr, AF_INET, SOCK_DGRAM, 0);
          threadNsAfter = inodeOf("/proc/thread-self/ns/net");
          socketNs = inodeOf("/proc/self/fd/" + std::to_string(ioctl(sd, SIOCGSKNS)));
        }
      }).join();
      return (testNs == defaultNs) | (socketNs != defaultNs) << 1 | (threadNsAfter != testNs) << 2 |
             (inodeOf("/proc/thread-self/ns/net") != defaultNs) << 3;
    });
  });
  EXPECT_EQ(std::system(("ip netns del " + name).c_str()), 0);
  if (child.exitCode == kNoPidNamespace) {
    GTEST_SKIP() << "cannot make a pid namespace to stand in for the default one";
  }
  EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST(Netns, FailuresAreExplainedAndSocketFallsBackToLocal) {
  EXPECT_EQ(Netns::setnsByName("tarvo-no-such-ns", CLONE_NEWNET), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(std::string(Netns::netnsGetTracebuffer()).find("/var/run/netns/tarvo-no-such-ns") !=
              std::string::npos);
  EXPECT_EQ(Netns::setnsByName("../../proc/1/ns/net", CLONE_NEWNET), -1);
  EXPECT_EQ(errno, EINVAL);

  EXPECT_EQ(Tarvo::Test::runInChild([] {
              // Without capabilities the default namespace cannot be entered.
              __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
              __user_cap_data_struct data[2] = {};
              Tarvo::Test::TraceRecorder trace;
              int sd = syscall(SYS_capset, &header, data) == 0
                           ? Util::socket(&trace, AF_UNIX, SOCK_DGRAM, 0)
                           : -1;
              sockaddr addr{AF_UNIX, {}};  // autobind shows the descriptor works
              return sd >= 0 && bind(sd, &addr, sizeof(sa_family_t)) == 0 &&
                     trace.has(2,
                               "Util::socket() setnsByName() to default failure: "
                               "setnsByName(default)") &&
                     trace.has(2, "Util::socket() success opening local socket: Success");
            }).exitCode,
            1);
}

// Connects to an abstract name the way peers of the writer do: unpadded name bytes.
bool canConnect(const std::string& name) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path + 1, name.data(), name.size());
  int sd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  bool ok = connect(sd, reinterpret_cast<sockaddr*>(&addr),
                    static_cast<socklen_t>(sizeof addr.sun_family + 1 + name.size())) == 0;
  close(sd);
  return ok;
}

TEST(CreateAndBindSocket, SecondBinderThrowsAndLeaksNothing) {
  const std::string name = "tarvo-test-writer-" + std::to_string(getpid());
  int writer = Util::createAndBindSocket(nullptr, name);
  ASSERT_EQ(listen(writer, 1), 0);
  EXPECT_TRUE(canConnect(name));
  std::string message =
      thrownMessage<RuntimeException>([&] { Util::createAndBindSocket(nullptr, name); });
  EXPECT_TRUE(
      message.starts_with("WriterLock::createAndBindSocket() bind() failed for socket:0x") &&
      message.ends_with(" error: Address already in use"))
      << message;
  // Counted around a later attempt: the first exception's backtrace may open descriptors that
  // the unwinder keeps for the life of the process.
  int before = Tarvo::Test::openFdCount();
  EXPECT_THROW(Util::createAndBindSocket(nullptr, name), RuntimeException);
  EXPECT_EQ(Tarvo::Test::openFdCount(), before);
  close(writer);

  // Names past 107 bytes are cut: a different tail is the same address.
  const std::string longName = name + std::string(150, 'n');
  writer = Util::createAndBindSocket(nullptr, longName);
  ASSERT_EQ(listen(writer, 1), 0);
  EXPECT_TRUE(canConnect(longName.substr(0, 107)));
  close(writer);
}

TEST(ResolveSym, FindsSymbolsExplainsMissingOnesAndHeapHooksNeedHeapcheck) {
  EXPECT_EQ(Util::resolveSym(nullptr, "getpid"), reinterpret_cast<void*>(&getpid));
  EXPECT_EQ(Util::resolveSym(nullptr, "tarvo_no_such_symbol"), nullptr);
  const char* error = Util::resolveSymError();
  EXPECT_TRUE(error && std::strstr(error, "tarvo_no_such_symbol"));
  unsetenv("HEAPCHECK");
  EXPECT_EQ(HeapChecker::resolveAllocSym(nullptr), nullptr);
  EXPECT_EQ(Util::resolveSymError(), nullptr);  // read and cleared above; no lookup since
}

}  // namespace
}  // namespace Tarvo
