#include <cstring>
#include <iomanip>
#include <sstream>

#include <gtest/gtest.h>

#include "Tarvo/DisplayPointer.h"
#include "Tarvo/IntrospectionMap.h"
#include "Tarvo/Random.h"
#include "Tarvo/UtilHelpers.h"
#include "common/TestSupport.h"

namespace Tarvo {
namespace {

TEST(Hash, MatchesPublishedFnv1aVectors) {
  EXPECT_EQ(Util::hash(std::string()), 0x811c9dc5u);
  EXPECT_EQ(Util::hash(std::string("a")), 0xe40c292cu);
  EXPECT_EQ(Util::hash(std::string("foobar")), 0xbf9cf968u);
  EXPECT_EQ(Util::hash64(std::string()), 0xcbf29ce484222325ull);
  EXPECT_EQ(Util::hash64(std::string("a")), 0xaf63dc4c8601ec8cull);
  EXPECT_EQ(Util::hash64(std::string("foobar")), 0x85944171f73967e8ull);

  // The string forms hash every byte, not up to a NUL; the buffer forms agree with them.
  std::string withNul("a\0b", 3);
  EXPECT_NE(Util::hash(withNul), Util::hash(std::string("a")));
  EXPECT_EQ(Util::hash(withNul), Util::hash(withNul.data(), 3));
  EXPECT_EQ(Util::hash64(withNul), Util::hash64(withNul.data(), 3));
}

TEST(DumpHex, GroupsFourBytesWithLeadingZeros) {
  const unsigned char bytes[] = {1, 2, 3, 4, 5, 0xab, 0xc0, 0x0f, 0xff};
  EXPECT_EQ(dumpHex(bytes, 5), "01020304 05");
  EXPECT_EQ(dumpHex(bytes, 6), "01020304 05ab");
  EXPECT_EQ(dumpHex(bytes, 4), "01020304");
  EXPECT_EQ(dumpHex(bytes, 9), "01020304 05abc00f ff");
  EXPECT_EQ(dumpHex(bytes, 8), "01020304 05abc00f");
  EXPECT_EQ(dumpHex(bytes, 0), "");
  EXPECT_EQ(dumpHex(bytes, -3), "");
}

TEST(DisplayPointer, PrintsZeroFilledHexOrNullAndKeepsStreamState) {
  EXPECT_EQ(DisplayPointer(nullptr).toString(), "NULL");
  EXPECT_EQ(DisplayPointer(reinterpret_cast<const void*>(0xa0f0)).toString(), "0x0000a0f0");
  EXPECT_EQ(DisplayPointer(reinterpret_cast<const void*>(0x7ffc1234abcdull)).toString(),
            "0x7ffc1234abcd");

  std::ostringstream os;
  os << std::uppercase << std::setfill('*');
  os.width(4);
  std::ios_base::fmtflags flags = os.flags();
  os << DisplayPointer(reinterpret_cast<const void*>(0xabc));
  EXPECT_EQ(os.flags(), flags);
  EXPECT_EQ(os.width(), 4);
  EXPECT_EQ(os.fill(), '*');
  os.width(0);
  os << DisplayPointer(nullptr) << 255;
  EXPECT_EQ(os.str(), "0x00000abcNULL255");
}

TEST(Random, SecondSetSeedRestartsTheSequence) {
  Random::setSeed();
  unsigned seed = Random::getSeed();
  std::string first = Random::randomString(200);
  Random::setSeed();
  EXPECT_EQ(Random::getSeed(), seed);
  EXPECT_EQ(Random::randomString(200), first);
  EXPECT_EQ(Random::randomString(0), "");
  const char alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  for (char c : first) {
    EXPECT_TRUE(c == '\0' || std::strchr(alphabet, c) != nullptr) << int(c);
  }
}

// In a child run: seeds, then prints the seed and a random string for the parent to compare.
TEST(Random, SeedFromEnvironmentRepeatsAcrossProcesses) {
  if (Tarvo::Test::isChildRun()) {
    EXPECT_EQ(Random::getSeed(), 0u);
    Random::setSeed();
    std::cout << "seed=" << Random::getSeed()
              << " text=" << dumpHex(Random::randomString(16).data(), 16) << std::endl;
    return;
  }
  const std::string self = "Random.SeedFromEnvironmentRepeatsAcrossProcesses";
  Tarvo::Test::ChildResult one = Tarvo::Test::runSelf(self, {"ZQTEST_RANDSEED=42"});
  Tarvo::Test::ChildResult two = Tarvo::Test::runSelf(self, {"ZQTEST_RANDSEED=42"});
  Tarvo::Test::ChildResult other = Tarvo::Test::runSelf(self, {"ZQTEST_RANDSEED=43"});
  Tarvo::Test::ChildResult bad = Tarvo::Test::runSelf(self, {"ZQTEST_RANDSEED=abc"});
  ASSERT_EQ(one.exitCode, 0) << one.out << one.err;
  auto line = [](const std::string& out) {
    size_t at = out.find("seed=");
    return at == std::string::npos ? std::string() : out.substr(at, out.find('\n', at) - at);
  };
  EXPECT_EQ(line(one.out).rfind("seed=42 text=", 0), 0u) << one.out;
  EXPECT_EQ(line(one.out), line(two.out));
  EXPECT_NE(line(one.out).substr(13), line(other.out).substr(13));
  EXPECT_EQ(line(bad.out).rfind("seed=0 text=", 0), 0u) << bad.out;
  EXPECT_NE(one.err.find("Tarvo::Random::setSeed(), setting seed to 42"), std::string::npos)
      << one.err;
}

const std::string printPair(const void* value) {
  const auto* pair = static_cast<const int*>(value);
  return "(" + std::to_string(pair[0]) + "," + std::to_string(pair[1]) + ")";
}
const std::string printNothing(const void*) {
  return "";
}

TEST(ValuePrinter, UsesRegisteredPrinterElseRawBytes) {
  const int pair[2] = {0x01020304, 5};
  auto printer = Platform::getValuePrinter("HelpersTest::Pair", sizeof pair);
  EXPECT_EQ(printer->customToString(pair), "");
  EXPECT_EQ(printer->toString(pair), dumpHex(pair, sizeof pair));

  IntrospectionMap::insert("HelpersTest::Pair", &printPair);
  EXPECT_EQ(printer->toString(pair), "(16909060,5)");
  EXPECT_NE(Platform::getValuePrinter("HelpersTest::Pair", 8), printer);

  IntrospectionMap::insert("HelpersTest::Pair", &printNothing);
  EXPECT_EQ(printer->toString(pair), dumpHex(pair, sizeof pair));
}

TEST(DisplaySubString, ShowsExactlyTheRangeWithoutTerminator) {
  const char text[] = {'a', 'b', 'c', 'd', 'e'};  // no terminating zero
  std::ostringstream os;
  Impl::DisplaySubStringBase::addToStream(os, text, 1, 4);
  EXPECT_EQ(os.str(), "bcd");
  EXPECT_EQ(Impl::DisplaySubStringBase::toString(text, 2, 5), "cde");
  EXPECT_EQ(Impl::DisplaySubStringBase::toString(text, 3, 3), "");
}

}  // namespace
}  // namespace Tarvo
