#include "Tarvo/Mappings.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include <gtest/gtest.h>

namespace Tarvo {
namespace {

TEST(MappingInfos, ParsesCraftedLinesAndFindsByAddressAndFile) {
  std::istringstream maps(
      "7f1200000000-7f1200021000 rw-p 00000000 00:00 0 \n"
      "7f1300000000-7f1300001000 ---p 1f0002000 fd:01 1234567     /opt/my dir/lib x.so\n"
      "7f1300001000-7f1300002000 r--p 1f0002000 fd:01 1234567     /opt/my dir/lib x.so\n"
      "not a mapping line\n"
      "7f1400000000-7f1400001000 r--p 00000000 00:00 0\n");
  MappingInfos infos = PidMappings::parse(maps);
  ASSERT_EQ(infos.size(), 3u);  // parsing stops at the malformed line
  EXPECT_EQ(infos[0].path, "");
  const MappingInfo& lib = infos[2];
  EXPECT_EQ(lib.offset, 0x1f0002000u);
  EXPECT_EQ(lib.inode, 1234567u);
  EXPECT_EQ(lib.path, "/opt/my dir/lib x.so");

  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x7f1300000fffu)).perms, "---p");
  EXPECT_EQ(infos.find(reinterpret_cast<const void*>(0x7f1300002000u)).end, 0u);
  EXPECT_EQ(infos.find("/opt/my dir/lib x.so", 0x1f0002000u).start, 0x7f1300001000u);
  EXPECT_EQ(infos.find("/opt/my dir/lib x.so", 0).start, 0u);
}

TEST(PidMappings, PopulatesThisProcessWithItsOwnCode) {
  MappingInfos infos = PidMappings::populate(getpid());
  MappingInfo code = infos.find(reinterpret_cast<const void*>(&PidMappings::populate));
  EXPECT_EQ(code.perms.substr(0, 3), "r-x");
  EXPECT_NE(code.path.find("libTarvo.so"), std::string::npos) << code;
  struct stat lib {};
  ASSERT_EQ(stat(code.path.c_str(), &lib), 0);
  EXPECT_EQ(code.inode, lib.st_ino);
  EXPECT_EQ(PidMappings::mappingInfos(getpid()).size(), infos.size());
}

TEST(PidMappings, VanishedProcessGivesEmptyListAndKeepsTheCache) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  pid_t child = fork();
  if (child == 0) {
    char c;
    close(fds[1]);
    _exit(static_cast<int>(read(fds[0], &c, 1)));
  }
  close(fds[0]);
  size_t seen = PidMappings::populate(child).size();
  EXPECT_GT(seen, 0u);
  close(fds[1]);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(PidMappings::populate(child).empty());
  EXPECT_EQ(PidMappings::mappingInfos(child).size(), seen);
}

}  // namespace
}  // namespace Tarvo
