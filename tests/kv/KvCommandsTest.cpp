#include "KvCommands.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace TarvoKv {
namespace {

using Words = std::vector<std::string>;

class KvCommandsTest : public ::testing::Test {
 protected:
  std::string run(const Words& args) {
    std::string out;
    last_ = commands_.execute(args, now_, &out);
    return out;
  }

  KvStore store_;
  KvCommands commands_{store_, [](const std::string& section, std::string* out) {
                         if (section.empty() || section == "server") {
                           *out += "# Server\r\nname:test\r\n";
                         }
                       }};
  int64_t now_ = 1700000000000;
  KvCommands::After last_ = KvCommands::After::proceed;
};

// Replies recorded from redis-server 7.0 for what the differential test against a live server
// (KvDifferentialAgainstRedis, which checks every other reply path of the commands) does not
// check: it sends no empty echo, no line ends or long texts in unknown commands, no SET GET of a
// missing key, no EXPIRE XX of a key without a time to live and no COMMAND DOCS; it reads replies
// through redis-cli, which shows a null bulk and a null array alike, and it cannot reach the INFO
// section this fixture writes.
TEST_F(KvCommandsTest, RepliesMatchTheReferenceServerByteForByte) {
  const std::vector<std::pair<Words, std::string>> script = {
      {{"echo", ""}, "$0\r\n\r\n"},
      {{"FOO", "a'b", "c"}, "-ERR unknown command 'FOO', with args beginning with: 'a'b' 'c' \r\n"},
      {{"a\r\nb", "x\ny"}, "-ERR unknown command 'a  b', with args beginning with: 'x y' \r\n"},
      // The name and the arguments are each cut at 128 bytes, the arguments all together.
      {{std::string(200, 'n'), std::string(200, 'x'), "y"},
       "-ERR unknown command '" + std::string(128, 'n') + "', with args beginning with: '" +
           std::string(128, 'x') + "' \r\n"},
      {{"foo", std::string(120, 'a'), "bcdefghijkl", "m"},
       "-ERR unknown command 'foo', with args beginning with: '" + std::string(120, 'a') +
           "' 'bcdef' \r\n"},
      {{"SET", "k", "v"}, "+OK\r\n"},
      {{"SET", "k", "v", "NX"}, "$-1\r\n"},
      {{"SET", "k3", "v", "get"}, "$-1\r\n"},
      {{"EXPIRE", "k", "100", "XX"}, ":0\r\n"},
      {{"COMMAND", "DOCS"}, "*0\r\n"},
      {{"INFO", "nosuch"}, "$0\r\n\r\n"},
      {{"INFO", "SERVER"}, "$21\r\n# Server\r\nname:test\r\n\r\n"},
  };
  for (const auto& [args, reply] : script) {
    EXPECT_EQ(run(args), reply) << args[0] << (args.size() > 1 ? " " + args[1] : "");
    EXPECT_EQ(last_, KvCommands::After::proceed);
  }
  EXPECT_EQ(commands_.commandsProcessed(), script.size());
  EXPECT_EQ(run({"QUIT", "x"}), "+OK\r\n");
  EXPECT_EQ(last_, KvCommands::After::closeAfterReply);
  EXPECT_EQ(run({"Host:", "x"}), "");
  EXPECT_EQ(last_, KvCommands::After::dropConnection);
}

TEST_F(KvCommandsTest, KeysExpireLazilyAndActivelyAndKeepTheirTtlWhereRedisDoes) {
  using namespace std::string_literals;
  const std::string binaryKey = "k\0\r\n"s;
  EXPECT_EQ(run({"SET", binaryKey, "v\0"s, "PX", "100"}), "+OK\r\n");
  EXPECT_EQ(run({"PTTL", binaryKey}), ":100\r\n");
  now_ += 99;
  EXPECT_EQ(run({"GET", binaryKey}), "$2\r\nv\0\r\n"s);
  EXPECT_EQ(run({"TTL", binaryKey}), ":0\r\n");  // 1 ms left rounds to 0 s
  now_ += 1;
  EXPECT_EQ(run({"GET", binaryKey}), "$-1\r\n");
  EXPECT_EQ(store_.expiredCount(), 1u);

  // INCR and KEEPTTL keep the expiry time; a plain SET clears it.
  run({"SET", "c", "1", "EX", "10"});
  EXPECT_EQ(run({"INCR", "c"}), ":2\r\n");
  run({"SET", "c", "7", "KEEPTTL"});
  EXPECT_EQ(run({"PTTL", "c"}), ":10000\r\n");
  run({"SET", "c", "8"});
  EXPECT_EQ(run({"PTTL", "c"}), ":-1\r\n");
  EXPECT_EQ(store_.volatileCount(), 0u);

  // Absolute times: in the past the key is gone at once; in the future it counts down.
  EXPECT_EQ(run({"SET", "a", "1", "EXAT", "1"}), "+OK\r\n");
  EXPECT_EQ(run({"EXISTS", "a"}), ":0\r\n");
  run({"SET", "a", "1", "PXAT", std::to_string(now_ + 2500)});
  EXPECT_EQ(run({"TTL", "a"}), ":3\r\n");

  // Active expiry removes keys nobody asks for again, and only expired ones.
  for (int i = 0; i < 1000; ++i) {
    run({"SET", "t" + std::to_string(i), "x", "PX", i % 2 ? "50" : "5000"});
  }
  run({"SET", "persistent", "x"});
  EXPECT_EQ(store_.volatileCount(), 1001u);
  now_ += 100;
  size_t removed = 0;
  for (int round = 0; round < 100 && removed < 500; ++round) {
    removed += store_.expireSome(now_, 64);
  }
  EXPECT_EQ(removed, 500u);
  EXPECT_EQ(store_.expireSome(now_, 1u << 20), 0u);
  EXPECT_EQ(run({"DBSIZE"}), ":503\r\n");
  EXPECT_EQ(store_.volatileCount(), 501u);
  EXPECT_EQ(run({"EXISTS", "t0", "t1", "persistent"}), ":2\r\n");

  // Setting over an expired key that was never removed starts it afresh.
  run({"SET", "old", "abc", "PX", "1"});
  now_ += 1;
  EXPECT_EQ(run({"SET", "old", "def", "XX"}), "$-1\r\n");
  EXPECT_EQ(run({"SET", "old", "new", "NX", "GET"}), "$-1\r\n");
  EXPECT_EQ(run({"PTTL", "old"}), ":-1\r\n");
}

}  // namespace
}  // namespace TarvoKv
