#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Platform.h"
#include "common/TestSupport.h"

using namespace Tarvo;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string formatFlags() {
  testing::internal::CaptureStdout();
  Platform::printAllTraceFormat();
  return testing::internal::GetCapturedStdout();
}

// Each test starts from the default format and with trace lines on the standard error
// stream, and leaves them so.
class TraceOutput : public ::testing::Test {
 protected:
  void SetUp() override {
    Platform::setTraceFormat("date,time,tid,handle,level");
    handler_ = Platform::getDebugHandler("OutProbe");
    handler_->enabledIs(3, true);
  }
  void TearDown() override {
    Platform::destroyDebugHandler(handler_);
    unsetenv("TRACEFILE");
    Platform::setupTarvoDebug("");
    Platform::setTraceFormat("date,time,tid,handle,level");
  }

  // Sends trace lines to `path` through TRACEFILE.
  void traceTo(const std::string& path) {
    setenv("TRACEFILE", path.c_str(), 1);
    Platform::setupTarvoDebug("");
  }

  std::string lineFor(const std::string& format) {
    Platform::setTraceFormat(format.c_str());
    testing::internal::CaptureStderr();
    TARVO_TRACE(handler_, 3, "msg " << 42);
    return testing::internal::GetCapturedStderr();
  }

  Platform::DebugHandler* handler_ = nullptr;
};

}  // namespace

TEST_F(TraceOutput, FieldsFollowTheFixedOrderWhateverTheListOrder) {
  EXPECT_EQ(lineFor("level,handle"), "OutProbe 3 msg 42\n");
  // An empty list prints the bare message, composed once and only when its level is on.
  int composed = 0;
  Platform::setTraceFormat("");
  testing::internal::CaptureStderr();
  TARVO_TRACE(handler_, 4, "off " << ++composed);
  TARVO_TRACE(*handler_, 3, "on " << ++composed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "on 1\n");
  // Local calendar date and time; the microseconds print as a plain integer, never padded.
  EXPECT_THAT(lineFor("level,date,time"),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\."
                           "(0|[1-9][0-9]{0,5}) 3 msg 42\n"));
  EXPECT_EQ(lineFor("pid,tid"),
            std::to_string(getpid()) + " " + std::to_string(Platform::gettid()) + " msg 42\n");
  const int line = __LINE__ + 3;
  Platform::setTraceFormat("func-name,line-info");
  testing::internal::CaptureStderr();
  TARVO_TRACE(handler_, 3, "here");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "TraceOutputTest.cpp:" + std::to_string(line) + " TestBody here\n");

  // A missing file or function name ends the line at that field.
  Platform::setTraceFormat("level,line-info,func-name");
  Platform::DebugStream message;
  message << "lost";
  testing::internal::CaptureStderr();
  handler_->dump(message, 3, nullptr, 7, "fn");
  handler_->dump(message, 3, "dir/file.cpp", 7, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "3 \n3 file.cpp:7 \n");
}

TEST_F(TraceOutput, InvalidFieldChangesNothingAndHelpListsFields) {
  Platform::setTraceFormat("pid,level");
  const std::string before = formatFlags();
  EXPECT_EQ(before, "0 0 1 0 0 1 0 0\n");
  testing::internal::CaptureStderr();
  Platform::setTraceFormat("date,bogus");
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "bogus is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n");
  EXPECT_EQ(formatFlags(), before);
  testing::internal::CaptureStderr();
  Platform::setTraceFormat("help");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n"
            "  pid\n  tid\n  handle\n  level\n  line-info\n  func-name\n");
  EXPECT_EQ(formatFlags(), before);
  Platform::setTraceFormat("Level");  // names are case-sensitive
  EXPECT_EQ(formatFlags(), before);
  Platform::setTraceFormat(",,");
  EXPECT_EQ(formatFlags(), "0 0 0 0 0 0 0 0\n");
}

TEST_F(TraceOutput, TraceFileReceivesLinesAndIsTruncatedOnReopen) {
  Tarvo::Test::TempDir dir;
  const std::string path = dir.file("trace.log");
  traceTo(path);
  Platform::clearTraceFormat();
  TARVO_TRACE(handler_, 3, "first");
  Platform::setupTarvoDebug("");  // same name: the file stays open, nothing is truncated
  TARVO_TRACE(handler_, 3, "second");
  EXPECT_EQ(readFile(path), "first\nsecond\n");

  unsetenv("TRACEFILE");
  Platform::setupTarvoDebug("");  // back to the standard error stream
  testing::internal::CaptureStderr();
  TARVO_TRACE(handler_, 3, "third");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "third\n");

  traceTo(path);  // reopening truncates
  TARVO_TRACE(handler_, 3, "fourth");
  EXPECT_EQ(readFile(path), "fourth\n");
}

// A trace file that cannot be opened, or that stops taking lines (/dev/full: every write
// fails with ENOSPC, as on a full file system), hands the failed line and the later ones to
// the standard error stream.
TEST_F(TraceOutput, TraceFileThatFailsFallsBackToStandardError) {
  Platform::clearTraceFormat();
  for (auto [path, error] : {std::pair{"/nonexistent-dir/trace.log", "Error opening"},
                             std::pair{"/dev/full", "Error writing"}}) {
    testing::internal::CaptureStderr();
    traceTo(path);
    TARVO_TRACE(handler_, 3, "first");
    TARVO_TRACE(handler_, 3, "next");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string(error) + " TRACEFILE=" + path +
                  "\nDefaulting to std::cerr for trace output.\nfirst\nnext\n");
  }
}

TEST_F(TraceOutput, LinesFromManyThreadsStayWhole) {
  Tarvo::Test::TempDir dir;
  const std::string path = dir.file("threads.log");
  traceTo(path);
  Platform::setTraceFormat("tid,level");
  constexpr int kThreads = 6;
  constexpr int kLines = 400;
  const std::string payload(200, 'x');
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i) {
        TARVO_TRACE(handler_, 3, "T" << t << " " << i << " " << payload);
        if (i % 50 == 0) {
          // Registry changes race with the unlocked level tests.
          Platform::setupTarvoDebug("OutProbe/7");
          Platform::clearTarvoDebug("OutProbe/7");
        }
      }
    });
  }
  for (auto& thread : threads)
    thread.join();

  std::istringstream lines(readFile(path));
  std::string line;
  std::vector<int> next(kThreads, 0);
  int count = 0;
  const std::regex shape("[0-9]+ 3 T([0-9]) ([0-9]+) x{200}");
  while (std::getline(lines, line)) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
    const int t = std::stoi(m[1]);
    EXPECT_EQ(std::stoi(m[2]), next[t]++) << "lines of one thread keep their order";
    ++count;
  }
  EXPECT_EQ(count, kThreads * kLines);
}

// A valid TRACEFORMAT and TRACEFILE take effect before main; an invalid one is reported and
// leaves the default format.
TEST(TraceOutputAtLoad, EnvironmentFormatAndFileApplyAtStartup) {
  if (Tarvo::Test::isChildRun()) {
    EXPECT_EQ(formatFlags(), std::getenv("EXPECTED_FLAGS"));
    Platform::DebugHandler* h = Platform::getDebugHandler("TarvoAtLoad");
    TARVO_TRACE(h, 1, "to the file");
    Platform::destroyDebugHandler(h);
    return;
  }
  Tarvo::Test::TempDir dir;
  const std::string path = dir.file("load.log");
  auto result = Tarvo::Test::runSelf(
      "TraceOutputAtLoad.*",
      {"TRACEFORMAT=level,pid", "TRACEFILE=" + path, "EXPECTED_FLAGS=0 0 1 0 0 1 0 0\n"});
  EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
  EXPECT_THAT(result.err, ::testing::Not(HasSubstr("to the file")));
  EXPECT_THAT(readFile(path), MatchesRegex("[0-9]+ 1 to the file\n"));

  result = Tarvo::Test::runSelf("TraceOutputAtLoad.*",
                                {"TRACEFORMAT=time,nonsense", "EXPECTED_FLAGS=1 1 0 1 1 1 0 0\n"});
  EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
  EXPECT_THAT(result.err, HasSubstr("nonsense is an invalid field in TRACEFORMAT"));
}
