#include <linux/capability.h>
#include <linux/sockios.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Tarvo/UtilNet.h"
#include "common/TestSupport.h"

namespace Tarvo {
namespace {

constexpr int kNoPidNamespace = 77;

ino_t inodeOf(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// The network namespace a socket belongs to.
ino_t socketNamespace(int sd) {
  int nsFd = ioctl(sd, SIOCGSKNS);
  struct stat st {};
  ino_t inode = nsFd >= 0 && fstat(nsFd, &st) == 0 ? st.st_ino : 0;
  close(nsFd);
  return inode;
}

// Runs `body` as process 1 of a fresh pid namespace with its own /proc, so that the default
// network namespace (that of process 1) is one the test may enter, whatever the machine's real
// init allows. Called in a forked child; kNoPidNamespace when that cannot be arranged.
template <typename Body>
int runAsInit(Body body) {
  if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return kNoPidNamespace;
  }
  pid_t init = fork();
  if (init == 0) {
    int result = mount("proc", "/proc", "proc", 0, nullptr) == 0 ? body() : kNoPidNamespace;
    std::fflush(nullptr);
    _exit(result);
  }
  int status = 0;
  return waitpid(init, &status, 0) == init && WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

TEST(Netns, SocketFromAnotherNamespaceLandsInDefaultOne) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "entering network namespaces needs root";
  }
  if (std::system("ip -V >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "iproute2 (the ip command) is not installed";
  }
  const std::string name = "tarvo-test-" + std::to_string(getpid());
  if (std::system(("ip netns add " + name).c_str()) != 0) {
    GTEST_SKIP() << "ip netns add failed: no namespace support here";
  }
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([&name] {
    return runAsInit([&name] {
      const ino_t defaultNs = inodeOf("/proc/1/ns/net");
      const ino_t testNs = inodeOf("/var/run/netns/" + name);
      int failures = 0;
      auto expect = [&](bool ok, const char* what) {
        failures += ok ? 0 : 1;
        std::fprintf(stderr, "%s%s\n", ok ? "" : "FAILED: ", what);
      };
      expect(defaultNs != 0 && testNs != 0 && testNs != defaultNs, "two distinct namespaces");
      std::thread worker([&] {
        expect(Netns::setnsByName(name.c_str(), CLONE_NEWNET) == 0, "thread enters test ns");
        int plain = ::socket(AF_INET, SOCK_DGRAM, 0);
        expect(socketNamespace(plain) == testNs, "plain socket is in test ns");
        close(plain);
        int sd = Util::socket(nullptr, AF_INET, SOCK_DGRAM, 0);
        expect(socketNamespace(sd) == defaultNs, "Util::socket is in default ns");
        close(sd);
        expect(inodeOf("/proc/thread-self/ns/net") == testNs, "thread is back in test ns");
      });
      worker.join();
      expect(inodeOf("/proc/thread-self/ns/net") == defaultNs, "main thread stayed");
      return failures;
    });
  });
  EXPECT_EQ(std::system(("ip netns del " + name).c_str()), 0);
  if (child.exitCode == kNoPidNamespace) {
    GTEST_SKIP() << "cannot make a pid namespace to stand in for the default one";
  }
  EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST(Netns, FailuresAreExplainedAndSocketFallsBackToLocal) {
  errno = 0;
  EXPECT_EQ(Netns::setnsByName("tarvo-no-such-namespace", CLONE_NEWNET), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(
      std::string(Netns::netnsGetTracebuffer()).find("/var/run/netns/tarvo-no-such-namespace"),
      std::string::npos);
  errno = 0;
  EXPECT_EQ(Netns::setnsByName("../../proc/1/ns/net", CLONE_NEWNET), -1);
  EXPECT_EQ(errno, EINVAL);

  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([] {
    // Without capabilities the default namespace cannot be entered.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    Platform::setupTarvoDebug("TarvoNetnsTest/2");
    Platform::DebugHandler* h = Platform::getDebugHandler("TarvoNetnsTest");
    int sd = syscall(SYS_capset, &header, data) == 0 ? Util::socket(h, AF_UNIX, SOCK_DGRAM, 0) : -1;
    sockaddr addr{AF_UNIX, {}};  // autobind shows the descriptor works
    return sd >= 0 && bind(sd, &addr, sizeof(sa_family_t)) == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  EXPECT_NE(child.err.find("Util::socket() setnsByName() to default failure: setnsByName(default)"),
            std::string::npos)
      << child.err;
  EXPECT_NE(child.err.find("Util::socket() success opening local socket: Success"),
            std::string::npos);
}

}  // namespace
}  // namespace Tarvo
