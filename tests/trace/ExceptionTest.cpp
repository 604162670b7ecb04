#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "common/TestSupport.h"

using namespace Tarvo;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

template <class E>
std::string thrownName(void (*raise)(const std::string&)) {
  try {
    raise("m");
  } catch (const E& e) {
    return dynamic_cast<const Exception&>(e).name();
  }
  return "not thrown";
}

// Recurses `depth` frames, then captures a backtrace. noinline keeps every level a frame.
__attribute__((noinline)) unsigned captureAtDepth(int depth) {
  if (depth > 0) {
    unsigned frames = captureAtDepth(depth - 1);
    asm volatile("" ::: "memory");  // keeps the call from becoming a tail call
    return frames;
  }
  return Backtrace(true).count();
}

}  // namespace

TEST(Exception, ThreadsShareOneWhatTextAndACopyBuildsItsOwn) {
  try {
    RuntimeException::throwException("shared");
  } catch (const RuntimeException& e) {
    const char* texts[4] = {};
    std::vector<std::thread> threads;
    for (const char*& text : texts) {
      threads.emplace_back([&text, &e] { text = e.what(); });
    }
    for (std::thread& t : threads) {
      t.join();
    }
    for (const char* text : texts) {
      EXPECT_EQ(text, texts[0]) << "every thread sees the one published text";
    }
    RuntimeException copy = e;
    EXPECT_NE(copy.what(), e.what());
    EXPECT_STREQ(copy.what(), e.what());
  }
}

TEST(Exception, EveryClassNamesItselfAndKeepsItsBase) {
  const std::pair<void (*)(const std::string&), const char*> classes[] = {
      {&Exception::throwException, "Tarvo::Exception"},
      {&AssertException::throwException, "Tarvo::AssertException"},
      {&MemoryResourceException::throwException, "Tarvo::MemoryResourceException"},
      {&NoPermissionException::throwException, "Tarvo::NoPermissionException"},
      {&UnimplementedException::throwException, "Tarvo::UnimplementedException"},
      {&InvalidInitializeException::throwException, "Tarvo::InvalidInitializeException"},
      {&RuntimeException::throwException, "Tarvo::RuntimeException"},
      {&OutOfRangeException::throwException, "Tarvo::OutOfRangeException"},
      {&CorruptionDetectedException::throwException, "Tarvo::CorruptionDetectedException"},
      {&InvalidSizeException::throwException, "Tarvo::InvalidSizeException"},
  };
  for (auto [raise, name] : classes) {
    EXPECT_EQ(thrownName<std::exception>(raise), name);
  }
  EXPECT_EQ(thrownName<CorruptionDetectedException>(&InvalidSizeException::throwException),
            "Tarvo::InvalidSizeException");

  // what() is the name, the quoted message when there is one, then the demangled backtrace.
  try {
    AssertException::throwException("boom");
  } catch (const Exception& e) {
    EXPECT_THAT(e.what(), StartsWith("Tarvo::AssertException(\"boom\")\nBacktrace:\n"));
    EXPECT_THAT(e.what(), HasSubstr("Tarvo::AssertException::throwException("));
  }
  try {
    RuntimeException::throwException("");
  } catch (const Exception& e) {
    EXPECT_THAT(e.what(), StartsWith("Tarvo::RuntimeException\nBacktrace:\n"));
  }
}

TEST(Exception, BacktraceStopsAtOneHundredFrames) {
  EXPECT_EQ(captureAtDepth(150), Backtrace::kMaxFrames);
  const unsigned shallow = captureAtDepth(0);
  EXPECT_EQ(captureAtDepth(10), shallow + 10);
  EXPECT_EQ(Backtrace(false).pretty(), "No backtrace available\n");
  void* frames[4];
  EXPECT_EQ(Backtrace::unwind(frames, 0), 0u);
}

TEST(Exception, AssertionComposesLocationAndTracesWhenEnabled) {
  Platform::DebugStream message;
  message << "bad value " << 7;
  try {
    debugAndThrowAssertException(nullptr, 0, message, nullptr, "fn", 12);
  } catch (const AssertException& e) {
    EXPECT_EQ(e.message(), ":fn:12: bad value 7");
  }

  Platform::DebugHandler* h = Platform::getDebugHandler("TarvoAssertProbe");
  Platform::clearTraceFormat();
  testing::internal::CaptureStderr();
  EXPECT_THROW(debugAndThrowAssertException(*h, 1, message, "File", "fn", 3), AssertException);
  EXPECT_THROW(debugAndThrowAssertException(*h, 6, message, "File", "fn", 4), AssertException);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "File:fn:3: bad value 7\n");
  Platform::setTraceFormat("date,time,tid,handle,level");
  Platform::destroyDebugHandler(h);
}

TEST(ExceptionDeathTest, FatalChecksNameTheirPlaceAndAbort) {
  EXPECT_DEATH(check(false, "the list is corrupt"),
               "ExceptionTest.cpp:.*TestBody.*:[0-9]+: the list is corrupt");
  check(true, "never printed");
}
