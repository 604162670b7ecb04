#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Tarvo/DirNode.h"
#include "Tarvo/Util.h"
#include "util/SystemTestSupport.h"

namespace Tarvo {
namespace {

using Test::thrownMessage;
using Test::TraceRecorder;

// The permission bits of `path`, or 0 when it does not exist.
mode_t modeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(FilesTest, FilesGetExactModesAndFailuresAnswerAsTold) {
  Tarvo::Test::TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::settledFdCount();
  mode_t oldMask = ::umask(077);
  Util::fileWrite(trace, dir.file("state"), "first content", false);
  Util::fileWrite(trace, dir.file("state"), std::string("ab\0cd", 5), false);
  EXPECT_TRUE(Util::touch(trace, dir.file("state")));
  EXPECT_EQ(Util::fileSize(trace, dir.file("state")), 5u);
  EXPECT_EQ(Util::fileRead(trace, dir.file("state"), true), "ab");
  EXPECT_TRUE(Util::touch(trace, dir.file("new")));
  EXPECT_EQ(modeOf(dir.file("state")), 0666u);
  EXPECT_EQ(modeOf(dir.file("new")), 0666u);
  EXPECT_EQ(Util::mkpath(dir.file("x/y/z/"), 0751), 0);
  EXPECT_EQ(Util::mkpath(dir.file("x/y/z"), 0700), 0);
  for (const char* path : {"x", "x/y", "x/y/z"}) {
    EXPECT_EQ(modeOf(dir.file(path)), 0751u) << path;
  }
  EXPECT_EQ(::umask(oldMask), 077u);
  EXPECT_LT(Util::mkpath(dir.file("new/sub/dir"), 0755), 0);
  EXPECT_EQ(errno, ENOTDIR);

  std::string noDir = dir.file("no-such-dir/state");
  EXPECT_EQ(
      thrownMessage<RuntimeException>([&] { Util::fileWrite(trace, noDir, "payload 42", false); }),
      "payload 42");
  EXPECT_TRUE(trace.has(0, "Util::fileWrite() unable to open " + noDir + " reason:No such file"));
  EXPECT_NO_THROW(Util::fileWrite(trace, noDir, "payload 42", true));
  EXPECT_FALSE(Util::touch(trace, noDir));
  EXPECT_EQ(Util::fileSize(trace, noDir), 0u);
  trace.lines_.clear();
  EXPECT_TRUE(Util::fileRemove(trace, noDir));
  EXPECT_TRUE(trace.lines_.empty());
  EXPECT_FALSE(Util::fileRemove(trace, dir.file("x")));
  EXPECT_TRUE(trace.has(0, "Util::fileRemove() unlink() error " + dir.file("x") + ": "));
  EXPECT_EQ(DirNode(trace, noDir).readEntry(), nullptr);
  EXPECT_TRUE(trace.has(
      5, "DirNode::readEntry() cannot read " + noDir + " because the directory is not open"));
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(FilesTest, TrimpathRemovesTrailingDirectoriesUntilOneIsNotEmpty) {
  const char* faults[][3] = {{"", "x", "absolute path is empty"},
                             {"a/b", "b", "absolute path is not absolute"},
                             {"/a/b", "", "trailing path is empty"},
                             {"/a/b", "/a/b", "trailing path longer than absolute path"},
                             {"/a/b", "x", "trailing path is not a terminal substring"}};
  for (auto& fault : faults) {
    std::string message = thrownMessage([&] { Util::trimpath(fault[0], fault[1]); });
    EXPECT_TRUE(message.starts_with("Util:trimpath:") &&
                message.find(fault[2]) != std::string::npos)
        << message;
  }
  Tarvo::Test::TempDir dir;
  std::string deepest = dir.file("a/b/c");
  ASSERT_EQ(Util::mkpath(deepest, 0755), 0);
  std::ofstream(dir.file("a/b/keep")) << "";
  EXPECT_EQ(Util::trimpath(deepest, "a/b/c"), -1);  // b is not empty
  EXPECT_EQ(modeOf(deepest), 0u);
  ::unlink(dir.file("a/b/keep").c_str());
  EXPECT_EQ(Util::trimpath(deepest, "/b/c"), 0);  // the missing c is skipped
  EXPECT_EQ(modeOf(dir.file("a/b")), 0u);
  EXPECT_EQ(modeOf(dir.file("a")), 0755u);
}

}  // namespace
}  // namespace Tarvo
