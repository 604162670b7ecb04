// RESP2 request parser of tarvo-kv: bytes in, commands out.
//
// A client sends either arrays of bulk strings ("*2\r\n$3\r\nGET\r\n$1\r\nk\r\n") or inline
// commands (a line of words, "GET k\r\n", with double- and single-quoted words as redis-cli
// writes them). The parser takes the bytes as they arrive, in pieces of any size, and hands
// out one complete command at a time, so a read holding many pipelined commands yields them
// all and a command split over many reads yields it once its last byte is in.
//
// It reads requests the way redis-server 7.0 does, odd corners included: the byte after a
// header's '\r' and the two bytes after a bulk string are skipped unseen; "*0" and "*-1" are
// accepted and ignored, as are empty inline lines; numbers are strict (no sign '+', no leading
// zero, no blank); a NUL byte ends the text searched for the end of an inline line or a header.
//
// Errors. Malformed input or a request over the limits gives error() with the text that
// follows "-ERR " in the reply ("Protocol error: invalid bulk length"); the parser then stays
// failed, and the caller answers the commands parsed before, then the error, then closes.
//
// Memory: bytes are kept only until the command they belong to is handed out. A client can
// make the parser hold at most one request: the limits bound its size.
//
// Not thread-safe; one parser per connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace TarvoKv {

struct RespLimits {
  // Longest bulk string accepted ("$<n>" above it is an error).
  size_t maxBulkLength = 512u * 1024 * 1024;
  // Longest inline line; longer ones are errors.
  size_t maxInlineLength = 1024 * 1024;
  // How far an array or bulk header ("*3", "$5") may go without its '\r'.
  size_t maxHeaderLength = 64 * 1024;
};

class RespParser {
 public:
  enum class Status { command, needMore, error };

  explicit RespParser(RespLimits limits = RespLimits()) : limits_(limits) {}

  // Appends bytes received from the client.
  void feed(std::string_view bytes);
  // Takes the next complete command into *args (at least one word). needMore: every byte
  // fed so far belongs to an incomplete request. error: see error(); once failed, always.
  Status next(std::vector<std::string>* args);
  // "Protocol error: ..." after next() answered error; empty before.
  const std::string& error() const noexcept { return error_; }
  // Bytes fed and not yet part of a command handed out.
  size_t buffered() const noexcept { return buffer_.size() - pos_; }

 private:
  Status nextInline(std::vector<std::string>* args);
  Status nextArray(std::vector<std::string>* args);
  Status fail(const char* message);
  // Position of the '\r' ending the header that starts at pos_, or npos while incomplete;
  // fails with `tooBig` when no '\r' shows up within the header limit.
  size_t headerEnd(const char* tooBig, Status* status);

  RespLimits limits_;
  std::string buffer_;
  size_t pos_ = 0;
  // State of an array in progress: the words still expected and those taken already, kept
  // here (not in the caller's vector) until the command is complete.
  int64_t wordsLeft_ = 0;
  int64_t bulkLength_ = -1;
  size_t wordsTaken_ = 0;
  std::vector<std::string> words_;
  std::string error_;
};

// Strict decimal integer of the whole text, as redis-server reads numbers: optional '-', no
// '+', no leading zeros, no blanks, within int64. False when the text is not one.
bool parseStrictInt64(std::string_view text, int64_t* value);

// Splits an inline line into words as redis-server does: blanks separate words, "..." takes
// \n \r \t \b \a \xHH and \<c> escapes, '...' takes \' only, and a closing quote must be
// followed by a blank or the end. False for unbalanced quotes.
bool splitInlineArgs(std::string_view line, std::vector<std::string>* words);

}  // namespace TarvoKv
