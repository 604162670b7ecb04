#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Tarvo/Exception.h"
#include "Tarvo/UtilNet.h"
#include "common/TestSupport.h"

namespace Tarvo {
namespace {

// Connects to an abstract name the way peers of the writer do: unpadded, at most 107 bytes.
int connectTo(const std::string& name) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  size_t len = std::min(name.size(), sizeof addr.sun_path - 1);
  std::memcpy(addr.sun_path + 1, name.data(), len);
  int sd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  socklen_t addrLen = static_cast<socklen_t>(sizeof addr.sun_family + 1 + len);
  if (connect(sd, reinterpret_cast<sockaddr*>(&addr), addrLen) != 0) {
    close(sd);
    return -1;
  }
  return sd;
}

std::string uniqueName(const std::string& base) {
  return "tarvo-test-" + base + "-" + std::to_string(getpid());
}

TEST(CreateAndBindSocket, SecondBinderThrowsAndLeaksNothing) {
  const std::string name = uniqueName("writer");
  int writer = Util::createAndBindSocket(nullptr, name);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(listen(writer, 1), 0);

  try {
    Util::createAndBindSocket(nullptr, name);
    ADD_FAILURE() << "second bind of " << name << " succeeded";
  } catch (const RuntimeException& e) {
    EXPECT_NE(e.message().find("WriterLock::createAndBindSocket() bind() failed for socket:0x"),
              std::string::npos)
        << e.message();
    EXPECT_NE(e.message().find(" error: Address already in use"), std::string::npos) << e.message();
  }
  // Counted around a later attempt: the first exception's backtrace may open descriptors that
  // the unwinder keeps for the life of the process.
  int before = Tarvo::Test::openFdCount();
  EXPECT_THROW(Util::createAndBindSocket(nullptr, name), RuntimeException);
  EXPECT_EQ(Tarvo::Test::openFdCount(), before);

  // The name is held exactly as given, so peers using the unpadded rule reach the writer.
  int peer = connectTo(name);
  EXPECT_GE(peer, 0);
  close(peer);
  EXPECT_LT(connectTo(name + "x"), 0);
  close(writer);

  // Once the writer is gone the name is free again.
  int next = Util::createAndBindSocket(nullptr, name);
  EXPECT_GE(next, 0);
  close(next);
}

TEST(CreateAndBindSocket, LongNamesAreCutTo107Bytes) {
  const std::string name = uniqueName(std::string(150, 'n'));
  int writer = Util::createAndBindSocket(nullptr, name);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(listen(writer, 1), 0);

  int peer = connectTo(name.substr(0, 107));
  EXPECT_GE(peer, 0);
  close(peer);
  // A different name with the same first 107 bytes is the same address.
  EXPECT_THROW(Util::createAndBindSocket(nullptr, name.substr(0, 107) + "other"), RuntimeException);
  close(writer);
}

TEST(ResolveSym, FindsProgramSymbolsAndExplainsMissingOnes) {
  EXPECT_EQ(Util::resolveSym(nullptr, "getpid"), reinterpret_cast<void*>(&getpid));
  EXPECT_EQ(Util::resolveSymError(), nullptr);

  EXPECT_EQ(Util::resolveSym(nullptr, "tarvo_no_such_symbol"), nullptr);
  const char* error = Util::resolveSymError();
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::string(error).find("tarvo_no_such_symbol"), std::string::npos) << error;
  EXPECT_EQ(Util::resolveSymError(), nullptr);  // reading clears it
}

TEST(HeapChecker, LooksUpHooksOnlyWhenHeapcheckIsSet) {
  Tarvo::Test::ChildResult unset = Tarvo::Test::runInChild([] {
    unsetenv("HEAPCHECK");
    bool quiet = HeapChecker::resolveAllocSym(nullptr) == nullptr &&
                 HeapChecker::resolveFreeSym(nullptr) == nullptr;
    return quiet && Util::resolveSymError() == nullptr ? 0 : 1;
  });
  EXPECT_EQ(unset.exitCode, 0);
  EXPECT_EQ(unset.err, "");

  Tarvo::Test::ChildResult set = Tarvo::Test::runInChild([] {
    setenv("HEAPCHECK", "", 1);
    if (HeapChecker::resolveAllocSym(nullptr) != nullptr) {
      return 1;
    }
    const char* error = Util::resolveSymError();
    return error != nullptr && std::strstr(error, "HeapChecker_RecordClientAlloc") ? 0 : 2;
  });
  EXPECT_EQ(set.exitCode, 0);
  EXPECT_NE(set.err.find("Util::resolveSym() symbolName:HeapChecker_RecordClientAlloc unable to "
                         "resolve:"),
            std::string::npos)
      << set.err;
}

}  // namespace
}  // namespace Tarvo
