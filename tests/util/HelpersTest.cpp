#include <sstream>

#include <gtest/gtest.h>

#include "Tarvo/DisplayPointer.h"
#include "Tarvo/IntrospectionMap.h"
#include "Tarvo/Random.h"
#include "Tarvo/UtilHelpers.h"
#include "common/TestSupport.h"

namespace Tarvo {
namespace {

TEST(Helpers, HashesDumpsAndPrintersGiveTheirExactTexts) {
  EXPECT_EQ(Util::hash(std::string()), 0x811c9dc5u);
  EXPECT_EQ(Util::hash(std::string("a")), 0xe40c292cu);
  EXPECT_EQ(Util::hash(std::string("foobar")), 0xbf9cf968u);
  EXPECT_EQ(Util::hash64("foobar", 6), 0x85944171f73967e8ull);
  EXPECT_NE(Util::hash(std::string("a\0b", 3)), Util::hash(std::string("a")));

  const unsigned char bytes[] = {1, 2, 3, 4, 5, 0xab, 0xc0, 0x0f, 0xff};
  EXPECT_EQ(dumpHex(bytes, 9), "01020304 05abc00f ff");
  EXPECT_EQ(dumpHex(bytes, 4), "01020304");
  EXPECT_EQ(dumpHex(bytes, -3), "");

  std::ostringstream os;
  os << std::uppercase << std::hex;
  os.width(4);
  os << DisplayPointer(reinterpret_cast<const void*>(0xabc)) << DisplayPointer(nullptr);
  os << 255;
  EXPECT_EQ(os.str(), "0x00000abcNULL  FF");

  const int pair[2] = {0x01020304, 5};
  auto printer = Platform::getValuePrinter("HelpersTest::Pair", sizeof pair);
  EXPECT_EQ(printer->toString(pair), dumpHex(pair, sizeof pair));
  IntrospectionMap::insert("HelpersTest::Pair", [](const void* v) -> const std::string {
    return std::to_string(static_cast<const int*>(v)[1]);
  });
  EXPECT_EQ(printer->toString(pair), "5");
  IntrospectionMap::insert("HelpersTest::Pair",
                           [](const void*) -> const std::string { return ""; });
  EXPECT_EQ(printer->toString(pair), dumpHex(pair, sizeof pair));
}

// The child runs print the seed and the strings drawn after the first and second setSeed.
TEST(Random, SeedFromEnvironmentRepeatsAcrossProcesses) {
  if (Tarvo::Test::isChildRun()) {
    Random::setSeed();
    std::string first = Random::randomString(16);
    Random::setSeed();
    std::cout << "seed=" << Random::getSeed() << " " << dumpHex(first.data(), 16) << " "
              << (Random::randomString(16) == first) << "\n";
    return;
  }
  std::string traced;
  auto run = [&](const std::string& seed) {
    Tarvo::Test::ChildResult child = Tarvo::Test::runSelf(
        "Random.SeedFromEnvironmentRepeatsAcrossProcesses", {"ZQTEST_RANDSEED=" + seed});
    traced += child.err;
    size_t at = child.out.find("seed=");
    return at == std::string::npos ? child.out
                                   : child.out.substr(at, child.out.find('\n', at) - at);
  };
  std::string one = run("42");
  EXPECT_EQ(one.rfind("seed=42 ", 0), 0u) << one << traced;
  EXPECT_NE(traced.find("Tarvo::Random::setSeed(), setting seed to 42"), std::string::npos);
  EXPECT_EQ(one.back(), '1');  // a second setSeed restarts the sequence
  EXPECT_EQ(run("42"), one);
  EXPECT_NE(run("43").substr(8), one.substr(8));
  EXPECT_EQ(run("abc").rfind("seed=0 ", 0), 0u);
}

}  // namespace
}  // namespace Tarvo
