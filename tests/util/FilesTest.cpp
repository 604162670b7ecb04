#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <set>

#include "Tarvo/DirNode.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Util.h"
#include "common/TestSupport.h"
#include "util/TraceRecorder.h"

namespace Tarvo {
namespace {

using Test::TempDir;
using Test::TraceRecorder;

// Sets a restrictive umask for the test's scope, so that modes that come out right cannot
// owe it to a permissive default.
class StrictUmask {
 public:
  StrictUmask() : old_(::umask(077)) {}
  ~StrictUmask() { ::umask(old_); }

 private:
  mode_t old_;
};

mode_t currentUmask() {
  mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

mode_t modeOf(const std::string& path) {
  struct stat st;
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

bool isDir(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void writeRaw(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string trimpathError(const std::string& absolute, const std::string& trailing) {
  try {
    Util::trimpath(absolute, trailing);
  } catch (const AssertException& e) {
    return e.message();
  }
  return "no exception";
}

TEST(FilesTest, FileReadStopsAtFirstNulAndReportsFailuresByTraceOnly) {
  TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::openFdCount();

  writeRaw(dir.file("nul"), std::string("ab\0cd", 5));
  EXPECT_EQ(Util::fileRead(trace, dir.file("nul"), true), "ab");
  EXPECT_TRUE(trace.has(5, "Util::fileRead() read " + dir.file("nul") + " 'ab'"));

  writeRaw(dir.file("empty"), "");
  EXPECT_EQ(Util::fileRead(trace, dir.file("empty"), true), "");
  EXPECT_TRUE(trace.has(5, "Util::fileRead() read " + dir.file("empty") + " ''"));

  trace.clear();
  EXPECT_EQ(Util::fileRead(trace, dir.file("missing"), false), "");
  EXPECT_TRUE(trace.lines().empty());
  EXPECT_EQ(Util::fileRead(trace, dir.file("missing"), true), "");
  EXPECT_TRUE(trace.has(5, "Util::fileRead() unable to open file " + dir.file("missing")));

  // A directory opens but cannot be read.
  EXPECT_EQ(Util::fileRead(trace, dir.path(), true), "");
  EXPECT_TRUE(trace.has(1, "Util::fileRead() failed to read from " + dir.path()));

  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(FilesTest, FileWriteReplacesContentWithMode0666WhateverTheUmask) {
  TempDir dir;
  TraceRecorder trace;
  StrictUmask umask;
  std::string path = dir.file("state");

  Util::fileWrite(trace, path, "first content", false);
  EXPECT_EQ(modeOf(path), 0666u);
  Util::fileWrite(trace, path, "second", false);
  EXPECT_EQ(Util::fileRead(trace, path, true), "second");
  EXPECT_EQ(currentUmask(), 077u);
}

TEST(FilesTest, FileWriteFailureThrowsTheContentUnlessQuiet) {
  TempDir dir;
  TraceRecorder trace;
  int fdsBefore = Tarvo::Test::openFdCount();
  std::string path = dir.file("no-such-dir/state");

  try {
    Util::fileWrite(trace, path, "payload 42", false);
    ADD_FAILURE() << "no exception";
  } catch (const RuntimeException& e) {
    EXPECT_EQ(e.message(), "payload 42");
  }
  EXPECT_TRUE(trace.has(
      0, "Util::fileWrite() unable to open " + path + " reason:No such file or directory"));
  EXPECT_NO_THROW(Util::fileWrite(trace, path, "payload 42", true));
  // A directory cannot be opened for writing either.
  EXPECT_THROW(Util::fileWrite(trace, dir.path(), "x", false), RuntimeException);
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(FilesTest, ExistsRemoveAndSizeAnswerFailuresWithoutThrowing) {
  TempDir dir;
  TraceRecorder trace;
  std::string path = dir.file("data");
  writeRaw(path, "12345");

  EXPECT_TRUE(Util::fileExists(trace, path));
  EXPECT_FALSE(Util::fileExists(trace, dir.file("missing")));
  EXPECT_TRUE(trace.has(
      5, "Util::fileExists() checking if " + dir.file("missing") + " exists, stat result: -1"));

  EXPECT_EQ(Util::fileSize(trace, path), 5u);
  int fd = ::open(path.c_str(), O_RDONLY);
  EXPECT_EQ(Util::fileSize(trace, fd), 5u);
  ::close(fd);
  EXPECT_EQ(Util::fileSize(trace, dir.file("missing")), 0u);
  EXPECT_TRUE(trace.has(5, "Util::fileSize() unable to stat file " + dir.file("missing") +
                               ": No such file or directory"));
  EXPECT_EQ(Util::fileSize(trace, -1), 0u);
  EXPECT_TRUE(trace.has(5, "Util::fileSize() unable to fstat fd -1: Bad file descriptor"));

  trace.clear();
  EXPECT_TRUE(Util::fileRemove(trace, dir.file("missing")));
  EXPECT_TRUE(trace.lines().empty());
  EXPECT_TRUE(Util::fileRemove(trace, path));
  EXPECT_FALSE(Util::fileExists(trace, path));
  EXPECT_FALSE(Util::fileRemove(trace, dir.path()));
  EXPECT_TRUE(trace.has(0, "Util::fileRemove() unlink() error " + dir.path() + ": "));
  EXPECT_TRUE(isDir(dir.path()));
}

TEST(FilesTest, TruncateAndTouchKeepTheirContracts) {
  TempDir dir;
  TraceRecorder trace;
  StrictUmask umask;
  std::string path = dir.file("log");

  EXPECT_TRUE(Util::touch(trace, path));
  EXPECT_EQ(modeOf(path), 0666u);
  Util::fileWrite(trace, path, "keep me", false);
  EXPECT_TRUE(Util::touch(trace, path));
  EXPECT_EQ(Util::fileRead(trace, path, true), "keep me");
  EXPECT_FALSE(Util::touch(trace, dir.file("missing/log")));
  EXPECT_TRUE(
      trace.has(0, "Util::touch() unable to open " + dir.file("missing/log") + " reason: "));
  EXPECT_EQ(currentUmask(), 077u);

  int fd = ::open(path.c_str(), O_RDWR);
  EXPECT_EQ(Util::truncate(trace, path, fd, 4), 0);
  EXPECT_EQ(Util::fileRead(trace, path, true), "keep");
  ::close(fd);
  fd = ::open(path.c_str(), O_RDONLY);
  EXPECT_EQ(Util::truncate(trace, path, fd, 1), -1);
  EXPECT_TRUE(trace.has(0, "Util::truncate() ftruncate() size:1 error: " + path + ": "));
  ::close(fd);
}

TEST(FilesTest, MkpathCreatesEveryMissingLevelWithExactlyTheMode) {
  TempDir dir;
  StrictUmask umask;
  std::string deepest = dir.file("x/y/z");

  EXPECT_EQ(Util::mkpath(deepest, 0751), 0);
  for (const std::string& path : {dir.file("x"), dir.file("x/y"), deepest}) {
    EXPECT_TRUE(isDir(path)) << path;
    EXPECT_EQ(modeOf(path), 0751u) << path;
  }
  EXPECT_EQ(Util::mkpath(deepest, 0700), 0);
  EXPECT_EQ(modeOf(deepest), 0751u);

  EXPECT_EQ(Util::mkpath(dir.file("t/u/"), 0755), 0);
  EXPECT_TRUE(isDir(dir.file("t/u")));
  EXPECT_EQ(Util::mkpath(dir.file("t//v"), 0755), 0);
  EXPECT_TRUE(isDir(dir.file("t/v")));

  writeRaw(dir.file("plain"), "");
  errno = 0;
  EXPECT_LT(Util::mkpath(dir.file("plain/sub/dir"), 0755), 0);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(currentUmask(), 077u);
}

TEST(FilesTest, TrimpathRejectsArgumentFaultsInOrder) {
  EXPECT_NE(trimpathError("", "").find("Util:trimpath:"), std::string::npos);
  EXPECT_NE(trimpathError("", "").find("absolute path is empty"), std::string::npos);
  EXPECT_NE(trimpathError("a/b", "").find("absolute path is not absolute"), std::string::npos);
  EXPECT_NE(trimpathError("/a/b", "").find("trailing path is empty"), std::string::npos);
  EXPECT_NE(trimpathError("/a/b/c", "/a/b/c").find("trailing path longer than absolute path"),
            std::string::npos);
  EXPECT_NE(trimpathError("/a/b/c", "b/x")
                .find("trailing path is not a terminal substring of absolute path"),
            std::string::npos);
}

TEST(FilesTest, TrimpathRemovesTheTrailingDirectoriesDeepestFirst) {
  TempDir dir;
  ASSERT_EQ(Util::mkpath(dir.file("a/b/c"), 0755), 0);
  EXPECT_EQ(Util::trimpath(dir.file("a/b/c"), "b/c"), 0);
  EXPECT_FALSE(isDir(dir.file("a/b")));
  EXPECT_TRUE(isDir(dir.file("a")));

  // A leading '/' in the trailing part changes nothing.
  ASSERT_EQ(Util::mkpath(dir.file("a/b/c"), 0755), 0);
  EXPECT_EQ(Util::trimpath(dir.file("a/b/c"), "/b/c"), 0);
  EXPECT_FALSE(isDir(dir.file("a/b")));
  EXPECT_TRUE(isDir(dir.file("a")));

  // A non-empty directory stops the walk; what was removed stays removed.
  ASSERT_EQ(Util::mkpath(dir.file("a/b/c"), 0755), 0);
  writeRaw(dir.file("a/b/keep"), "");
  EXPECT_EQ(Util::trimpath(dir.file("a/b/c"), "a/b/c"), -1);
  EXPECT_FALSE(isDir(dir.file("a/b/c")));
  EXPECT_TRUE(isDir(dir.file("a/b")));

  // A missing deepest directory is skipped and its parents are still removed.
  ::unlink(dir.file("a/b/keep").c_str());
  EXPECT_EQ(Util::trimpath(dir.file("a/b/c"), "a/b/c"), 0);
  EXPECT_FALSE(isDir(dir.file("a")));
  EXPECT_TRUE(isDir(dir.path()));
}

TEST(FilesTest, GetCwdReportsTheDirectoryAndThrowsWhenItIsGone) {
  TraceRecorder trace;
  char expected[4096];
  ASSERT_NE(::getcwd(expected, sizeof expected), nullptr);
  EXPECT_EQ(Util::getCwd(trace), expected);

  Tarvo::Test::ChildResult child = Tarvo::Test::runInChild([] {
    TempDir dir;
    std::string gone = dir.file("gone");
    if (::mkdir(gone.c_str(), 0700) != 0 || ::chdir(gone.c_str()) != 0 ||
        ::rmdir(gone.c_str()) != 0) {
      return 2;
    }
    TraceRecorder childTrace;
    try {
      Util::getCwd(childTrace);
    } catch (const RuntimeException& e) {
      std::string text = "Util::getCwd() getcwd() failed:No such file or directory";
      return e.message() == text && childTrace.has(0, text) ? 0 : 3;
    }
    return 4;
  });
  EXPECT_EQ(child.exitCode, 0) << child.err;
}

TEST(DirNodeTest, ReadsEveryEntryAndRewindsOnReopen) {
  TempDir dir;
  TraceRecorder trace;
  writeRaw(dir.file("one"), "");
  ASSERT_EQ(::mkdir(dir.file("two").c_str(), 0700), 0);
  int fdsBefore = Tarvo::Test::openFdCount();
  {
    DirNode node(trace, dir.path());
    ASSERT_TRUE(node.isOpen());
    std::multiset<std::string> names;
    while (struct dirent* entry = node.readEntry()) {
      names.insert(entry->d_name);
    }
    EXPECT_EQ(names, (std::multiset<std::string>{".", "..", "one", "two"}));
    EXPECT_EQ(node.readEntry(), nullptr);
    node.openDir();
    EXPECT_NE(node.readEntry(), nullptr);
    EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore + 1);
  }
  EXPECT_EQ(Tarvo::Test::openFdCount(), fdsBefore);
}

TEST(DirNodeTest, UnopenableDirectoryReadsNothingAndTracesByCause) {
  TempDir dir;
  TraceRecorder trace;
  writeRaw(dir.file("file"), "");

  DirNode missing(trace, dir.file("missing"));
  EXPECT_FALSE(missing.isOpen());
  EXPECT_EQ(missing.readEntry(), nullptr);
  EXPECT_TRUE(trace.has(9, "DirNode::DirNode() failed to open " + dir.file("missing") +
                               " errno: No such file or directory"));
  EXPECT_TRUE(trace.has(5, "DirNode::readEntry() cannot read " + dir.file("missing") +
                               " because the directory is not open"));

  DirNode notDir(trace, dir.file("file"));
  EXPECT_FALSE(notDir.isOpen());
  EXPECT_TRUE(trace.has(
      9, "DirNode::DirNode() failed to open " + dir.file("file") + " errno: Not a directory"));

  // A symbolic link loop is not an expected failure of a tree walk.
  std::string loop = dir.file("loop");
  ASSERT_EQ(::symlink(loop.c_str(), loop.c_str()), 0);
  DirNode looping(trace, loop);
  EXPECT_FALSE(looping.isOpen());
  EXPECT_TRUE(trace.has(1, "DirNode::DirNode() failed to open " + loop + " errno: "));
}

}  // namespace
}  // namespace Tarvo
