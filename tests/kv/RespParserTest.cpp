#include "RespParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace TarvoKv {
namespace {

using Words = std::vector<std::string>;

struct Outcome {
  std::vector<Words> commands;
  std::string error;  // empty when the input ended without a protocol error
};

// Feeds `input` in pieces cut at `cuts` (ascending offsets) and drains commands after each.
Outcome parsePieces(const std::string& input, const std::vector<size_t>& cuts,
                    RespLimits limits = RespLimits()) {
  RespParser parser(limits);
  Outcome outcome;
  Words args;
  size_t from = 0;
  auto drain = [&] {
    for (;;) {
      RespParser::Status status = parser.next(&args);
      if (status == RespParser::Status::command) {
        outcome.commands.push_back(args);
        continue;
      }
      if (status == RespParser::Status::error) {
        outcome.error = parser.error();
      }
      return status;
    }
  };
  for (size_t cut : cuts) {
    parser.feed(std::string_view(input).substr(from, cut - from));
    from = cut;
    if (drain() == RespParser::Status::error) {
      return outcome;
    }
  }
  parser.feed(std::string_view(input).substr(from));
  drain();
  return outcome;
}

Outcome parseWhole(const std::string& input, RespLimits limits = RespLimits()) {
  return parsePieces(input, {}, limits);
}

TEST(RespParserTest, PipelinedMixOfArraysAndInlineSurvivesEverySplit) {
  using namespace std::string_literals;
  // Arrays with binary bulks (CR LF and NUL inside), an ignored "*0" and "*-1", inline lines
  // ending in LF or CRLF with quoting, blank lines, and a bulk whose two trailing bytes are
  // not CRLF (they are skipped unseen).
  const std::string input =
      "*3\r\n$3\r\nSET\r\n$4\r\nk\r\n1\r\n$5\r\na\0b\r\n\r\n"s
      "*0\r\n*-1\r\n\r\n   \r\n"
      "GET \"k\\r\\n1\" 'it\\'s'\n"
      "*1\r\n$4\r\nPINGxx"
      "echo \"\\x41\\x4g\" \"\"\r\n"
      "*2\r\n$0\r\n\r\n$1\r\nz\r\n";
  const std::vector<Words> expected = {
      {"SET", "k\r\n1", "a\0b\r\n"s},
      {"GET", "k\r\n1", "it's"},
      {"PING"},
      {"echo", "Ax4g", ""},
      {"", "z"},
  };
  Outcome whole = parseWhole(input);
  EXPECT_EQ(whole.error, "");
  EXPECT_EQ(whole.commands, expected);
  for (size_t cut = 1; cut < input.size(); ++cut) {
    Outcome split = parsePieces(input, {cut});
    ASSERT_EQ(split.commands, expected) << "split at " << cut;
    ASSERT_EQ(split.error, "");
  }
  std::vector<size_t> everyByte;
  for (size_t i = 1; i < input.size(); ++i) {
    everyByte.push_back(i);
  }
  EXPECT_EQ(parsePieces(input, everyByte).commands, expected);
}

// A command split over several reads comes out whole whatever vector each call is given:
// the words in progress once lived in the caller's vector, and a fresh one per call gave
// "[k] []" for "GET k".
TEST(RespParserTest, SplitArrayIsWholeWithAFreshVectorPerCall) {
  const std::string input = "*2\r\n$3\r\nGET\r\n$1\r\nk\r\n";
  RespParser parser;
  std::vector<Words> commands;
  for (char c : input) {
    parser.feed(std::string_view(&c, 1));
    Words fresh{"left", "over"};
    if (parser.next(&fresh) == RespParser::Status::command) {
      commands.push_back(fresh);
    }
  }
  EXPECT_EQ(commands, std::vector<Words>({{"GET", "k"}}));
}

TEST(RespParserTest, MalformedInputGivesTheServerErrorAfterEarlierCommands) {
  struct Case {
    std::string input;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"*x\r\n", "invalid multibulk length"},
      {"*01\r\n", "invalid multibulk length"},
      {"*\r\n", "invalid multibulk length"},
      {"*1\r\n\r\n\r\n", "expected '$', got ' '"},
      // The byte after a header's CR is skipped whatever it is.
      {"*1\r$4\rPING\r\n", "expected '$', got '4'"},
      {"*1\r\n$-1\r\n", "invalid bulk length"},
      {"*1\r\n$+4\r\n", "invalid bulk length"},
      {"set 'a\r\n", "unbalanced quotes in request"},
  };
  for (const Case& c : cases) {
    Outcome outcome = parseWhole("PING\r\n*1\r\n$4\r\nPING\r\n" + c.input + "PING\r\n");
    EXPECT_EQ(outcome.error, "Protocol error: " + c.error) << c.input;
    EXPECT_EQ(outcome.commands, (std::vector<Words>{{"PING"}, {"PING"}})) << c.input;
  }
  // Once failed, the parser stays failed whatever follows.
  RespParser parser;
  Words args;
  parser.feed("*x\r\n");
  EXPECT_EQ(parser.next(&args), RespParser::Status::error);
  parser.feed("PING\r\n");
  EXPECT_EQ(parser.next(&args), RespParser::Status::error);
}

TEST(RespParserTest, LimitsBoundRequestsAndWhatIsBuffered) {
  RespLimits limits;
  limits.maxBulkLength = 8;
  limits.maxInlineLength = 16;
  limits.maxHeaderLength = 12;
  EXPECT_EQ(parseWhole("*1\r\n$8\r\n12345678\r\n", limits).commands,
            (std::vector<Words>{{"12345678"}}));
  EXPECT_EQ(parseWhole("*1\r\n$9\r\n", limits).error, "Protocol error: invalid bulk length");
  // Lines and headers may wait for their end up to their limits, not beyond.
  EXPECT_EQ(parseWhole(std::string(16, 'a'), limits).error, "");
  EXPECT_EQ(parseWhole(std::string(17, 'a'), limits).error,
            "Protocol error: too big inline request");
  EXPECT_EQ(parseWhole("*" + std::string(11, '1'), limits).error, "");
  EXPECT_EQ(parseWhole("*" + std::string(12, '1'), limits).error,
            "Protocol error: too big mbulk count string");
  EXPECT_EQ(parseWhole("*1\r\n$" + std::string(20, '1'), limits).error,
            "Protocol error: too big bulk count string");
  // A NUL hides the line end after it: the request never completes and hits the limit.
  EXPECT_EQ(parseWhole(std::string("echo a\0b\r\n", 10), limits).commands.size(), 0u);
  EXPECT_EQ(parseWhole(std::string("echo a\0b\r\n", 10) + std::string(8, 'x'), limits).error,
            "Protocol error: too big inline request");
  // A large array count is not trusted: nothing is reserved for it, the words just wait.
  Outcome partial = parseWhole("*2147483647\r\n$1\r\na\r\n");
  EXPECT_EQ(partial.error, "");
  EXPECT_TRUE(partial.commands.empty());

  // Bytes are released as commands are handed out.
  RespParser parser(limits);
  Words args;
  for (int i = 0; i < 10000; ++i) {
    parser.feed("*1\r\n$4\r\nPING\r\nPI");
    ASSERT_EQ(parser.next(&args), RespParser::Status::command);
    parser.feed("NG\r\n");
    ASSERT_EQ(parser.next(&args), RespParser::Status::command);
    ASSERT_EQ(parser.next(&args), RespParser::Status::needMore);
  }
  EXPECT_EQ(parser.buffered(), 0u);
}

TEST(RespParserTest, InlineWordsFollowRedisQuoting) {
  Words words;
  ASSERT_TRUE(splitInlineArgs("  set\tk  \"a\\\"b\\n\\t\\\\\\q\"  'x\\'y\\n' \"\" ", &words));
  EXPECT_EQ(words, (Words{"set", "k", "a\"b\n\t\\q", "x'y\\n", ""}));
  // A quote may open in the middle of a word; the closing one must end it.
  ASSERT_TRUE(splitInlineArgs("a\"b c\"", &words));
  EXPECT_EQ(words, (Words{"ab c"}));
  ASSERT_TRUE(splitInlineArgs("\"\\x41\\x7a\\x4\"", &words));
  EXPECT_EQ(words, (Words{"Azx4"}));
  // Vertical tab and form feed separate words only before a word starts.
  ASSERT_TRUE(splitInlineArgs("\v\fa\vb", &words));
  EXPECT_EQ(words, (Words{"a\vb"}));
  ASSERT_TRUE(splitInlineArgs("", &words));
  EXPECT_TRUE(words.empty());
  EXPECT_FALSE(splitInlineArgs("\"abc", &words));
  EXPECT_FALSE(splitInlineArgs("'abc'x", &words));
  EXPECT_FALSE(splitInlineArgs("\"ab\\\"", &words));
}

TEST(RespParserTest, StrictIntegersRejectWhatRedisRejects) {
  int64_t v = 1;
  for (int64_t good : {int64_t{0}, INT64_MAX, INT64_MIN, int64_t{-17}}) {
    ASSERT_TRUE(parseStrictInt64(std::to_string(good), &v)) << good;
    EXPECT_EQ(v, good);
  }
  for (const char* bad : {"", "-", "-0", "+1", "01", " 1", "1 ", "1a", "9223372036854775808",
                          "-9223372036854775809", "18446744073709551616", "00"}) {
    EXPECT_FALSE(parseStrictInt64(bad, &v)) << bad;
  }
}

}  // namespace
}  // namespace TarvoKv
