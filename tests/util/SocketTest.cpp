#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Tarvo/Exception.h"
#include "Tarvo/UtilNet.h"
#include "common/TestSupport.h"

namespace Tarvo {
namespace {

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
  EXPECT_FALSE(canConnect(name + "x"));
  try {
    Util::createAndBindSocket(nullptr, name);
    ADD_FAILURE() << "second bind of " << name << " succeeded";
  } catch (const RuntimeException& e) {
    EXPECT_EQ(e.message().rfind("WriterLock::createAndBindSocket() bind() failed for socket:0x", 0),
              0u);
    EXPECT_NE(e.message().find(" error: Address already in use"), std::string::npos);
  }
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
  EXPECT_THROW(Util::createAndBindSocket(nullptr, longName.substr(0, 107) + "x"), RuntimeException);
  close(writer);
}

TEST(ResolveSym, FindsSymbolsExplainsMissingOnesAndHeapHooksNeedHeapcheck) {
  EXPECT_EQ(Util::resolveSym(nullptr, "getpid"), reinterpret_cast<void*>(&getpid));
  EXPECT_EQ(Util::resolveSym(nullptr, "tarvo_no_such_symbol"), nullptr);
  const char* error = Util::resolveSymError();
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::strstr(error, "tarvo_no_such_symbol"), nullptr) << error;
  EXPECT_EQ(Util::resolveSymError(), nullptr);  // reading clears it

  unsetenv("HEAPCHECK");
  EXPECT_EQ(HeapChecker::resolveAllocSym(nullptr), nullptr);
  EXPECT_EQ(Util::resolveSymError(), nullptr);  // no lookup was made
  setenv("HEAPCHECK", "", 1);
  EXPECT_EQ(HeapChecker::resolveFreeSym(nullptr), nullptr);
  unsetenv("HEAPCHECK");
  ASSERT_NE(error = Util::resolveSymError(), nullptr);
  EXPECT_NE(std::strstr(error, "HeapChecker_RecordClientFree"), nullptr);
}

}  // namespace
}  // namespace Tarvo
