// The key-value example's RESP parser. The input is cut into pieces at points the input
// chooses and fed piece by piece; the commands, the final status and the error must be exactly
// those of feeding it whole. Every command has a word, a failed parser stays failed, and the
// commands written back as RESP arrays parse to themselves.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "RespParser.h"

namespace {

using TarvoKv::RespParser;
using Commands = std::vector<std::vector<std::string>>;

// The default limits, which inputs of a few kilobytes never reach: past a limit the answer
// depends on how the bytes were split (as in redis-server, which measures a header only while
// its '\r' has not arrived), so the split property holds only below them.
const TarvoKv::RespLimits kLimits{};

// Takes every command out; answers the last status.
RespParser::Status drain(RespParser& parser, Commands* out) {
  std::vector<std::string> args;
  RespParser::Status status;
  while ((status = parser.next(&args)) == RespParser::Status::command) {
    TARVO_CHECK(!args.empty());
    out->push_back(args);
  }
  return status;
}

std::string encoded(const Commands& commands) {
  std::string text;
  for (const auto& args : commands) {
    text += "*" + std::to_string(args.size()) + "\r\n";
    for (const auto& word : args) {
      text += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  std::vector<size_t> cuts;
  for (unsigned n = in.ConsumeIntegralInRange<unsigned>(0, 16); n > 0; --n) {
    cuts.push_back(in.ConsumeIntegralInRange<size_t>(1, 64));
  }
  const std::string bytes = in.ConsumeRemainingBytesAsString();

  RespParser whole(kLimits);
  whole.feed(bytes);
  Commands wholeCommands;
  const RespParser::Status wholeStatus = drain(whole, &wholeCommands);
  TARVO_CHECK(whole.buffered() <= bytes.size());

  RespParser pieces(kLimits);
  Commands pieceCommands;
  RespParser::Status pieceStatus = RespParser::Status::needMore;
  size_t pos = 0;
  for (size_t i = 0; pos < bytes.size(); ++i) {
    size_t length = i < cuts.size() ? cuts[i] : bytes.size() - pos;
    pieces.feed(std::string_view(bytes).substr(pos, length));
    pos += std::min(length, bytes.size() - pos);
    pieceStatus = drain(pieces, &pieceCommands);
    if (pieceStatus == RespParser::Status::error) {
      break;
    }
  }
  if (bytes.empty()) {
    pieceStatus = drain(pieces, &pieceCommands);
  }
  TARVO_CHECK(pieceStatus == wholeStatus);
  TARVO_CHECK(pieceCommands == wholeCommands);
  TARVO_CHECK(pieces.error() == whole.error());

  if (wholeStatus == RespParser::Status::error) {
    std::vector<std::string> args;
    whole.feed("*1\r\n$4\r\nPING\r\n");
    TARVO_CHECK(whole.next(&args) == RespParser::Status::error);
  }

  // Commands that fit the limits come back unchanged through their array form.
  RespParser again(TarvoKv::RespLimits{});
  again.feed(encoded(wholeCommands));
  Commands againCommands;
  TARVO_CHECK(drain(again, &againCommands) == RespParser::Status::needMore);
  TARVO_CHECK(againCommands == wholeCommands);
  return 0;
}
