#include "RespParser.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace TarvoKv {

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

// Offset of the first `c` in data[0, size), as a C string search would find it: npos when
// there is none or a NUL comes first.
size_t findBeforeNul(const char* data, size_t size, char c) {
  const void* hit = std::memchr(data, c, size);
  if (hit == nullptr) {
    return std::string_view::npos;
  }
  size_t offset = static_cast<const char*>(hit) - data;
  return std::memchr(data, '\0', offset) == nullptr ? offset : std::string_view::npos;
}

}  // namespace

bool parseStrictInt64(std::string_view text, int64_t* value) {
  if (text.empty() || text.size() > 20) {
    return false;
  }
  if (text.size() == 1 && text[0] == '0') {
    *value = 0;
    return true;
  }
  size_t i = 0;
  bool negative = text[0] == '-';
  if (negative) {
    i = 1;
  }
  if (i >= text.size() || text[i] < '1' || text[i] > '9') {
    return false;
  }
  uint64_t magnitude = 0;
  for (; i < text.size(); ++i) {
    char c = text[i];
    if (c < '0' || c > '9') {
      return false;
    }
    unsigned digit = static_cast<unsigned>(c - '0');
    if (magnitude > (UINT64_MAX - digit) / 10) {
      return false;
    }
    magnitude = magnitude * 10 + digit;
  }
  if (negative) {
    if (magnitude > static_cast<uint64_t>(INT64_MAX) + 1) {
      return false;
    }
    *value = static_cast<int64_t>(0 - magnitude);
  } else {
    if (magnitude > static_cast<uint64_t>(INT64_MAX)) {
      return false;
    }
    *value = static_cast<int64_t>(magnitude);
  }
  return true;
}

bool splitInlineArgs(std::string_view line, std::vector<std::string>* words) {
  words->clear();
  size_t p = 0;
  const size_t n = line.size();
  // Reads past the end as NUL, which is how the line ends.
  auto at = [&](size_t i) { return i < n ? line[i] : '\0'; };
  for (;;) {
    while (p < n && isBlank(line[p])) {
      ++p;
    }
    if (p >= n) {
      return true;
    }
    std::string word;
    bool inDouble = false;
    bool inSingle = false;
    bool done = false;
    while (!done) {
      char c = at(p);
      if (inDouble) {
        int high = hexValue(at(p + 2));
        int low = hexValue(at(p + 3));
        if (c == '\\' && at(p + 1) == 'x' && high >= 0 && low >= 0) {
          word.push_back(static_cast<char>(high * 16 + low));
          p += 3;
        } else if (c == '\\' && at(p + 1) != '\0') {
          ++p;
          switch (line[p]) {
            case 'n':
              word.push_back('\n');
              break;
            case 'r':
              word.push_back('\r');
              break;
            case 't':
              word.push_back('\t');
              break;
            case 'b':
              word.push_back('\b');
              break;
            case 'a':
              word.push_back('\a');
              break;
            default:
              word.push_back(line[p]);
              break;
          }
        } else if (c == '"') {
          if (at(p + 1) != '\0' && !isBlank(at(p + 1))) {
            return false;
          }
          done = true;
        } else if (c == '\0') {
          return false;
        } else {
          word.push_back(c);
        }
      } else if (inSingle) {
        if (c == '\\' && at(p + 1) == '\'') {
          ++p;
          word.push_back('\'');
        } else if (c == '\'') {
          if (at(p + 1) != '\0' && !isBlank(at(p + 1))) {
            return false;
          }
          done = true;
        } else if (c == '\0') {
          return false;
        } else {
          word.push_back(c);
        }
      } else {
        switch (c) {
          case ' ':
          case '\n':
          case '\r':
          case '\t':
          case '\0':
            done = true;
            break;
          case '"':
            inDouble = true;
            break;
          case '\'':
            inSingle = true;
            break;
          default:
            word.push_back(c);
            break;
        }
      }
      if (p < n) {
        ++p;
      }
    }
    words->push_back(std::move(word));
  }
}

void RespParser::feed(std::string_view bytes) {
  if (pos_ > 0 && pos_ == buffer_.size()) {
    buffer_.clear();
    pos_ = 0;
  } else if (pos_ > 4096 && pos_ > buffer_.size() / 2) {
    buffer_.erase(0, pos_);
    pos_ = 0;
  }
  buffer_.append(bytes);
}

RespParser::Status RespParser::fail(const char* message) {
  error_ = "Protocol error: ";
  error_ += message;
  // An error reply is one line: line breaks inside it become blanks.
  for (char& c : error_) {
    if (c == '\r' || c == '\n') {
      c = ' ';
    }
  }
  return Status::error;
}

RespParser::Status RespParser::next(std::vector<std::string>* args) {
  for (;;) {
    if (!error_.empty()) {
      return Status::error;
    }
    if (pos_ == buffer_.size()) {
      return Status::needMore;
    }
    Status status = (wordsLeft_ > 0 || buffer_[pos_] == '*') ? nextArray(args) : nextInline(args);
    // A command with no words (an empty line, "*0") is consumed and skipped.
    if (status != Status::command || !args->empty()) {
      return status;
    }
  }
}

RespParser::Status RespParser::nextInline(std::vector<std::string>* args) {
  std::string_view rest(buffer_.data() + pos_, buffer_.size() - pos_);
  size_t newline = findBeforeNul(rest.data(), rest.size(), '\n');
  if (newline == std::string_view::npos) {
    if (buffered() > limits_.maxInlineLength) {
      return fail("too big inline request");
    }
    return Status::needMore;
  }
  size_t length = newline;
  if (length > 0 && rest[length - 1] == '\r') {
    --length;
  }
  if (!splitInlineArgs(rest.substr(0, length), args)) {
    return fail("unbalanced quotes in request");
  }
  pos_ += newline + 1;
  return Status::command;
}

size_t RespParser::headerEnd(const char* tooBig, Status* status) {
  size_t cr = findBeforeNul(buffer_.data() + pos_, buffer_.size() - pos_, '\r');
  if (cr == std::string_view::npos) {
    *status = buffered() > limits_.maxHeaderLength ? fail(tooBig) : Status::needMore;
    return std::string_view::npos;
  }
  // The '\r' and the byte after it (normally '\n', never looked at) must both be in.
  if (cr + 2 > buffered()) {
    *status = Status::needMore;
    return std::string_view::npos;
  }
  return cr;
}

RespParser::Status RespParser::nextArray(std::vector<std::string>* args) {
  Status status = Status::needMore;
  if (wordsLeft_ == 0) {
    size_t cr = headerEnd("too big mbulk count string", &status);
    if (cr == std::string_view::npos) {
      return status;
    }
    int64_t count = 0;
    if (!parseStrictInt64(std::string_view(buffer_.data() + pos_ + 1, cr - 1), &count) ||
        count > INT_MAX) {
      return fail("invalid multibulk length");
    }
    pos_ += cr + 2;
    if (count <= 0) {
      args->clear();
      return Status::command;
    }
    wordsLeft_ = count;
    wordsTaken_ = 0;
    // The count is the client's word: room grows with the words that really arrive. Words
    // of an earlier command are overwritten in place, which keeps their storage.
    words_.reserve(static_cast<size_t>(std::min<int64_t>(count, 1024)));
  }
  while (wordsLeft_ > 0) {
    if (bulkLength_ < 0) {
      size_t cr = headerEnd("too big bulk count string", &status);
      if (cr == std::string_view::npos) {
        return status;
      }
      if (buffer_[pos_] != '$') {
        std::string message = "expected '$', got '";
        message += buffer_[pos_];
        message += "'";
        return fail(message.c_str());
      }
      int64_t length = 0;
      if (!parseStrictInt64(std::string_view(buffer_.data() + pos_ + 1, cr - 1), &length) ||
          length < 0 || static_cast<uint64_t>(length) > limits_.maxBulkLength) {
        return fail("invalid bulk length");
      }
      pos_ += cr + 2;
      bulkLength_ = length;
    }
    // The bulk and two bytes after it (normally "\r\n", never looked at).
    size_t need = static_cast<size_t>(bulkLength_) + 2;
    if (buffered() < need) {
      if (buffer_.capacity() - pos_ < need) {
        buffer_.reserve(pos_ + need);
      }
      return Status::needMore;
    }
    if (wordsTaken_ < words_.size()) {
      words_[wordsTaken_].assign(buffer_.data() + pos_, static_cast<size_t>(bulkLength_));
    } else {
      words_.emplace_back(buffer_.data() + pos_, static_cast<size_t>(bulkLength_));
    }
    ++wordsTaken_;
    pos_ += need;
    bulkLength_ = -1;
    --wordsLeft_;
  }
  // The words built up here go out whole; the caller's earlier words come back as storage
  // for the next command.
  words_.resize(wordsTaken_);
  args->swap(words_);
  return Status::command;
}

}  // namespace TarvoKv
