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
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Tarvo/UtilNet.h"
#include "common/TestSupport.h"

namespace Tarvo {
namespace {

ino_t inodeOf(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// The network namespace a socket belongs to.
ino_t socketNamespace(int sd) {
  int nsFd = ioctl(sd, SIOCGSKNS);
  if (nsFd < 0) {
    return 0;
  }
  struct stat st {};
  ino_t inode = fstat(nsFd, &st) == 0 ? st.st_ino : 0;
  close(nsFd);
  return inode;
}

// A named namespace made with iproute2 for one test and deleted after it.
class NamedNamespace : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "entering network namespaces needs root";
    }
    if (std::system("ip -V >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "iproute2 (the ip command) is not installed";
    }
    name_ = "tarvo-test-" + std::to_string(getpid());
    if (std::system(("ip netns add " + name_ + " 2>/dev/null").c_str()) != 0) {
      GTEST_SKIP() << "ip netns add " << name_ << " failed: no namespace support here";
    }
    created_ = true;
  }
  void TearDown() override {
    if (created_) {
      EXPECT_EQ(std::system(("ip netns del " + name_).c_str()), 0);
    }
  }

  std::string name_;
  bool created_ = false;
};

constexpr int kNoPidNamespace = 77;

// Runs `body` as process 1 of a fresh pid namespace with its own /proc, so that the default
// network namespace (that of process 1) is one the test may inspect and enter, whatever the
// machine's real init allows. Called in a forked child; returns body's result, or
// kNoPidNamespace when such a namespace cannot be made.
int runAsInit(const std::function<int()>& body) {
  if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return kNoPidNamespace;
  }
  pid_t init = fork();
  if (init == 0) {
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
      _exit(kNoPidNamespace);
    }
    int result = body();
    std::fflush(nullptr);
    _exit(result);
  }
  int status = 0;
  if (init < 0 || waitpid(init, &status, 0) != init) {
    return kNoPidNamespace;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(NamedNamespace, SocketFromAnotherNamespaceLandsInDefaultOne) {
  const std::string name = name_;
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([&name] {
    return runAsInit([&name] {
      const ino_t defaultNs = inodeOf("/proc/1/ns/net");
      const ino_t testNs = inodeOf("/var/run/netns/" + name);
      const ino_t mainThreadNs = inodeOf("/proc/thread-self/ns/net");
      ino_t entered = 0, plainSocket = 0, utilSocket = 0, after = 0;
      std::thread worker([&] {
        if (Netns::setnsByName(name.c_str(), CLONE_NEWNET) != 0) {
          std::fprintf(stderr, "enter: %s\n", Netns::netnsGetTracebuffer());
          return;
        }
        entered = inodeOf("/proc/thread-self/ns/net");
        int plain = ::socket(AF_INET, SOCK_DGRAM, 0);
        plainSocket = socketNamespace(plain);
        close(plain);
        int sd = Util::socket(nullptr, AF_INET, SOCK_DGRAM, 0);
        utilSocket = socketNamespace(sd);
        close(sd);
        after = inodeOf("/proc/thread-self/ns/net");
      });
      worker.join();
      std::printf(
          "default=%lu test=%lu main=%lu entered=%lu plain=%lu util=%lu after=%lu mainAfter=%lu\n",
          defaultNs, testNs, mainThreadNs, entered, plainSocket, utilSocket, after,
          inodeOf("/proc/thread-self/ns/net"));
      return 0;
    });
  });
  if (child.exitCode == kNoPidNamespace) {
    GTEST_SKIP() << "cannot make a private pid namespace to stand in for the default one";
  }
  ASSERT_EQ(child.exitCode, 0) << child.err;
  unsigned long defaultNs = 0, testNs = 0, mainNs = 0, entered = 0, plain = 0, util = 0, after = 0,
                mainAfter = 0;
  ASSERT_EQ(std::sscanf(child.out.c_str(),
                        "default=%lu test=%lu main=%lu entered=%lu plain=%lu util=%lu after=%lu "
                        "mainAfter=%lu",
                        &defaultNs, &testNs, &mainNs, &entered, &plain, &util, &after, &mainAfter),
            8)
      << child.out << child.err;
  ASSERT_NE(defaultNs, 0u);
  ASSERT_NE(testNs, defaultNs);
  EXPECT_EQ(entered, testNs) << child.err;
  EXPECT_EQ(plain, testNs);  // the comparison can tell the namespaces apart
  EXPECT_EQ(util, defaultNs);
  EXPECT_EQ(after, testNs);  // the thread is back where it was
  EXPECT_EQ(mainAfter, mainNs);
}

TEST(Netns, UnknownOrMalformedNamesFailWithReason) {
  errno = 0;
  EXPECT_EQ(Netns::setnsByName("tarvo-no-such-namespace", CLONE_NEWNET), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NE(
      std::string(Netns::netnsGetTracebuffer()).find("/var/run/netns/tarvo-no-such-namespace"),
      std::string::npos)
      << Netns::netnsGetTracebuffer();

  for (const char* bad : {"", ".", "..", "../../proc/1/ns/net"}) {
    errno = 0;
    EXPECT_EQ(Netns::setnsByName(bad, CLONE_NEWNET), -1) << bad;
    EXPECT_EQ(errno, EINVAL) << bad;
  }
}

TEST(Netns, SocketWithoutPrivilegeIsMadeLocallyAndSaysSo) {
  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([] {
    // Drop every capability so that entering the default namespace is refused.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capset, &header, data) != 0) {
      return 2;
    }
    Platform::setupTarvoDebug("TarvoNetnsTest/2");
    Platform::DebugHandler* h = Platform::getDebugHandler("TarvoNetnsTest");
    int sd = Util::socket(h, AF_UNIX, SOCK_DGRAM, 0);
    // Without CAP_NET_ADMIN the socket's namespace cannot be queried; a bound name shows
    // that the descriptor works.
    sockaddr addr{AF_UNIX, {}};
    int rc = sd >= 0 && bind(sd, &addr, sizeof(sa_family_t)) == 0 ? 0 : 1;
    close(sd);
    Platform::destroyDebugHandler(h);
    return rc;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
  EXPECT_NE(child.err.find("Util::socket() setnsByName() to default failure: setnsByName(default)"),
            std::string::npos)
      << child.err;
  EXPECT_NE(child.err.find("Util::socket() success opening local socket: Success"),
            std::string::npos)
      << child.err;
}

}  // namespace
}  // namespace Tarvo
