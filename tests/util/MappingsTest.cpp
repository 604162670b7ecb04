#include "Tarvo/Mappings.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include <gtest/gtest.h>

#include "Tarvo/IntrospectionMap.h"

namespace Tarvo {
namespace {

int codeMarker() {
  return 7;
}

TEST(MappingInfo, ParsesAnonymousBlankPathAndWideFields) {
  std::istringstream maps(
      "7f1200000000-7f1200021000 rw-p 00000000 00:00 0 \n"
      "55d0c0a00000-55d0c0a21000 r--p 1f0002000 fd:01 1234567                    /opt/my "
      "dir/lib x.so\n"
      "7ffd1c000000-7ffd1c021000 rw-p 00000000 00:00 0                          [stack]\n"
      "not a mapping line\n"
      "7f1300000000-7f1300001000 r--p 00000000 00:00 0\n");
  MappingInfos infos = PidMappings::parse(maps);
  ASSERT_EQ(infos.size(), 3u);  // parsing stops at the malformed line

  EXPECT_EQ(infos[0].path, "");
  EXPECT_EQ(infos[0].start, 0x7f1200000000u);

  const MappingInfo& lib = infos[1];
  EXPECT_EQ(lib.start, 0x55d0c0a00000u);
  EXPECT_EQ(lib.end, 0x55d0c0a21000u);
  EXPECT_EQ(lib.perms, "r--p");
  EXPECT_EQ(lib.offset, 0x1f0002000u);
  EXPECT_EQ(lib.major, 0xfdu);
  EXPECT_EQ(lib.minor, 1u);
  EXPECT_EQ(lib.inode, 1234567u);
  EXPECT_EQ(lib.path, "/opt/my dir/lib x.so");

  EXPECT_EQ(infos[2].path, "[stack]");
}

TEST(MappingInfos, FindsByAddressAndByFileSkippingGaps) {
  MappingInfos infos;
  MappingInfo gap;
  gap.start = 0x1000;
  gap.end = 0x2000;
  gap.perms = "---p";
  gap.offset = 0x5000;
  gap.path = "/lib/a.so";
  MappingInfo data = gap;
  data.start = 0x2000;
  data.end = 0x3000;
  data.perms = "rw-p";
  infos.insert(gap);
  infos.insert(data);

  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x1fff)).start, 0x1000u);
  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x2000)).start, 0x2000u);
  MappingInfo none = infos.find(reinterpret_cast<const void*>(0x3000));
  EXPECT_EQ(none.start, 0u);
  EXPECT_EQ(none.end, 0u);

  EXPECT_EQ(infos.find("/lib/a.so", 0x5000).start, 0x2000u);
  EXPECT_EQ(infos.find("/lib/a.so", 0x6000).start, 0u);
  EXPECT_EQ(infos.find("/lib/b.so", 0x5000).start, 0u);
}

TEST(MappingInfos, PrintsInHexAndLeavesTheStreamInHex) {
  MappingInfo info;
  info.start = 0x1000;
  info.end = 0x2a000;
  info.perms = "r-xp";
  info.offset = 0;
  info.major = 8;
  info.minor = 0x11;
  info.inode = 255;
  info.path = "/bin/x";
  MappingInfos infos;
  infos.insert(info);
  std::ostringstream os;
  os << infos << " " << 255;
  EXPECT_EQ(os.str(),
            "MappingInfos [\n"
            "MappingInfo { start:0x1000 end:0x2a000 perms:r-xp offset:0x0 major:0x8 minor:0x11 "
            "inode:0xff path:/bin/x }\n"
            "] ff");
}

TEST(PidMappings, PopulatesThisProcessWithItsOwnCode) {
  MappingInfos infos = PidMappings::populate(getpid());
  ASSERT_FALSE(infos.empty());
  for (size_t i = 1; i < infos.size(); ++i) {
    EXPECT_LT(infos[i - 1].start, infos[i].start);
  }
  MappingInfo code = infos.find(reinterpret_cast<const void*>(&codeMarker));
  EXPECT_EQ(code.perms.substr(0, 3), "r-x");
  struct stat self {};
  ASSERT_EQ(stat("/proc/self/exe", &self), 0);
  EXPECT_EQ(code.inode, self.st_ino);
  char exe[4096];
  ssize_t len = readlink("/proc/self/exe", exe, sizeof exe - 1);
  ASSERT_GT(len, 0);
  EXPECT_EQ(code.path, std::string(exe, static_cast<size_t>(len)));
  EXPECT_EQ(PidMappings::mappingInfos(getpid()).size(), infos.size());
}

TEST(PidMappings, VanishedProcessGivesEmptyListAndKeepsTheCache) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[1]);
    char c;
    (void)!read(fds[0], &c, 1);
    _exit(0);
  }
  close(fds[0]);
  size_t seen = PidMappings::populate(child).size();
  EXPECT_GT(seen, 0u);
  close(fds[1]);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);

  EXPECT_TRUE(PidMappings::populate(child).empty());
  EXPECT_EQ(PidMappings::mappingInfos(child).size(), seen);
  EXPECT_TRUE(PidMappings::mappingInfos(-12345).empty());
}

const std::string printA(const void*) {
  return "A";
}
const std::string printB(const void*) {
  return "B";
}

TEST(IntrospectionMap, LookupFindsTheLatestPrinterOrNull) {
  EXPECT_EQ(IntrospectionMap::lookup("MappingsTest::Never"), nullptr);
  IntrospectionMap::insert("MappingsTest::T", &printA);
  EXPECT_EQ(IntrospectionMap::lookup("MappingsTest::T"), &printA);
  IntrospectionMap::insert("MappingsTest::T", &printB);
  EXPECT_EQ(IntrospectionMap::lookup("MappingsTest::T"), &printB);
}

}  // namespace
}  // namespace Tarvo
