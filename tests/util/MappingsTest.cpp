#include "Tarvo/Mappings.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <sstream>
#include <typeinfo>

#include <gtest/gtest.h>

#include "Tarvo/DisplayPointer.h"
#include "Tarvo/UtilNet.h"
#include "util/SystemTestSupport.h"

namespace Tarvo {
namespace {

TEST(MappingInfos, ParsesCraftedLinesAndFindsByAddressAndFile) {
  std::istringstream maps(
      "7f1200000000-7f1200021000 rw-p 00000000 00:00 0 \n"
      "7f1300000000-7f1300001000 ---p 1f0002000 fd:01 12345678901 /opt/my dir/lib x.so\n"
      "7f1300001000-7f1300002000 r--p 1f0002000 fd:01 12345678901 /opt/my dir/lib x.so\n"
      "not a mapping line\n"
      "7f1400000000-7f1400001000 r--p 00000000 00:00 0\n");
  MappingInfos infos = PidMappings::parse(maps);
  ASSERT_EQ(infos.size(), 3u);  // parsing stops at the malformed line
  EXPECT_EQ(infos[0].path, "");
  const MappingInfo& lib = infos[2];
  EXPECT_EQ(lib.offset, 0x1f0002000u);
  EXPECT_EQ(lib.inode, 12345678901u);
  EXPECT_EQ(lib.path, "/opt/my dir/lib x.so");

  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x7f1300000fffu)).perms, "---p");
  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x7f1300002000u)).end, 0u);
  EXPECT_EQ(infos.find("/opt/my dir/lib x.so", 0x1f0002000u).start, 0x7f1300001000u);
  EXPECT_EQ(infos.find("/opt/my dir/lib x.so", 0).start, 0u);
}

TEST(PidMappings, PopulatesLiveProcessesAndKeepsTheCacheForVanishedOnes) {
  MappingInfos infos = PidMappings::populate(getpid());
  MappingInfo code = infos.find(reinterpret_cast<const void*>(&PidMappings::populate));
  EXPECT_EQ(code.perms.substr(0, 3), "r-x");
  EXPECT_NE(code.path.find("libTarvo.so"), std::string::npos) << code;

  Tarvo::Test::WaitingChild child([] { return true; });
  pid_t pid = child.pid();
  size_t seen = PidMappings::populate(pid).size();
  EXPECT_GT(seen, 0u);
  child.release();
  EXPECT_TRUE(PidMappings::populate(pid).empty());
  EXPECT_EQ(PidMappings::mappingInfos(pid).size(), seen);
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
  // The exec closes the child's report pipe, so setupOk() stays false: only the pid is used.
  Tarvo::Test::WaitingChild child([&] {
    dup2(fromChild[1], STDOUT_FILENO);
    setenv("TARVO_VPTR_CHILD", "1", 1);
    return execl("/proc/self/exe", "child", static_cast<char*>(nullptr)) == 0;
  });
  pid_t pid = child.pid();
  close(fromChild[1]);
  char line[64] = {};
  EXPECT_GT(read(fromChild[0], line, sizeof line - 1), 0);
  close(fromChild[0]);
  const void* vptr = reinterpret_cast<const void*>(std::strtoull(line, nullptr, 16));

  std::string error;
  EXPECT_STREQ(Util::typenameFromVptr(pid, vptr, error), typeid(Exception).name()) << error;

  // A pointer right at the start of its mapping has no type-information slot before it.
  MappingInfo mapping = PidMappings::mappingInfos(pid).find(vptr);
  EXPECT_EQ(Util::typenameFromVptr(pid, reinterpret_cast<void*>(mapping.start), error), nullptr);
  EXPECT_TRUE(error.starts_with("Bad vptr:0x") &&
              error.find("mapping:MappingInfo { start:0x") != std::string::npos)
      << error;

  child.release();
  EXPECT_EQ(Util::typenameFromVptr(pid, vptr, error), nullptr);
  EXPECT_EQ(error, "Could not find mapping for vptr:" + DisplayPointer(vptr).toString() +
                       " otherPid:" + std::to_string(pid));

  // Word arrays posing as a virtual table and type information in the program's data.
  static uintptr_t fakeVtable[3] = {0x10, 0x10, 0x10};
  static uintptr_t fakeTypeInfo[3] = {0x10, 0x10, 0x10};
  auto heap = std::make_unique<uintptr_t[]>(64);
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &heap[32], error), nullptr);
  EXPECT_TRUE(error.starts_with("Failed to open library for vptr:")) << error;

  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_TRUE(error.starts_with("No typeInfo mapping found for vptr:") &&
              error.find("typeInfoPtr:0x00000010") != std::string::npos)
      << error;

  fakeVtable[0] = reinterpret_cast<uintptr_t>(&fakeTypeInfo[0]);
  fakeTypeInfo[1] = reinterpret_cast<uintptr_t>(heap.get());  // the name lies outside the file
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_TRUE(error.starts_with("TypeInfo is not stored in proper mapping. Expected:MappingInfo {"))
      << error;
}

}  // namespace
}  // namespace Tarvo
