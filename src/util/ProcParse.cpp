#include "util/ProcParse.h"

#include <charconv>
#include <cstring>
#include <sstream>
#include <vector>

#include "Tarvo/Exception.h"

namespace Tarvo::Util::Impl {
namespace {

// Fields from the state (field 3) on; the start time is field 22.
constexpr unsigned kStartTimeFieldPos = 19;

// Splits on single blanks; runs of blanks yield no empty fields.
std::vector<std::string> splitOnBlanks(const std::string& text) {
  std::vector<std::string> fields;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find(' ', pos);
    if (end == std::string::npos) {
      end = text.size();
    }
    if (end > pos) {
      fields.push_back(text.substr(pos, end - pos));
    }
    pos = end + 1;
  }
  return fields;
}

}  // namespace

std::string procTitleFromStatus(Platform::DebugHandler& h, const std::string& status, int pid) {
  static constexpr const char* kNameTag = "Name:";
  static constexpr const char* kBlanks = " \t\n";
  std::istringstream in(status);
  std::string line;
  while (std::getline(in, line)) {
    size_t tag = line.find(kNameTag);
    if (tag == std::string::npos) {
      continue;
    }
    std::string title;
    size_t first = line.find_first_not_of(kBlanks, tag + std::strlen(kNameTag));
    if (first != std::string::npos) {
      title = line.substr(first, line.find_last_not_of(kBlanks) + 1 - first);
    }
    if (title.empty()) {
      TARVO_TRACE(h, 1, "Util::readProcTitle() error - Read 0 length title for pid:" << pid);
    } else {
      TARVO_TRACE(h, 5, "Util::readProcTitle() success - title:" << title);
    }
    return title;
  }
  TARVO_TRACE(h, 1,
              "Util::readProcTitle() error - Couldn't find proc title for pid:"
                  << pid << " stream state:" << in.rdstate());
  return {};
}

std::string procStartTimeFromStat(Platform::DebugHandler& h, const std::string& line,
                                  const std::string& path) {
  size_t close = line.rfind(')');
  if (close == std::string::npos || line.size() - close < 3) {
    Platform::DebugStream message;
    message << "Util::readProcStartTime() input not long enough to contain "
            << "start time. file: " << path << " line: \"" << line << "\"";
    debugAndThrowAssertException(&h, 0, message, "Util", "readProcStartTime", __LINE__);
  }
  // Skip the ") " that ends the command name.
  std::vector<std::string> fields = splitOnBlanks(line.substr(close + 2));
  if (fields.size() <= kStartTimeFieldPos) {
    size_t tokPos = fields.size();
    Platform::DebugStream message;
    message << "Util::readProcStartTime() Failed to parse start time from file: " << path
            << " line: \"" << line << "\""
            << " procStartTime.size():" << 0 << " tokPos:" << tokPos
            << " startTimeFieldPos:" << kStartTimeFieldPos;
    debugAndThrowAssertException(&h, 0, message, "Util", "readProcStartTime", __LINE__);
  }
  return fields[kStartTimeFieldPos];
}

unsigned long socketInodeFromNetUnix(Platform::DebugHandler& h, const std::string& netUnix,
                                     const std::string& socketName) {
  std::istringstream in(netUnix);
  std::string line;
  while (std::getline(in, line)) {
    TARVO_TRACE(h, 7, "Util::readProcNetUnix() " << line);
    if (line.find(socketName) == std::string::npos) {
      continue;
    }
    // Columns: Num RefCount Protocol Flags Type St Inode Path; the inode ends at the last blank.
    std::string text;
    size_t last = line.rfind(' ');
    if (last != std::string::npos && last > 0) {
      size_t before = line.rfind(' ', last - 1);
      size_t begin = before == std::string::npos ? 0 : before + 1;
      text = line.substr(begin, last - begin);
    }
    // Digits only and in range: a signed or overlong column must not become a large,
    // wrong inode.
    unsigned long inode = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), inode);
    if (error != std::errc() || end != text.data() + text.size()) {
      inode = 0;
    }
    if (inode == 0) {
      TARVO_TRACE(h, 1, "Util::readProcNetUnix() Couldn't convert inode '" << text << "' to U32.");
    } else {
      TARVO_TRACE(h, 5, "Util::readProcNetUnix() sockInode:" << inode);
    }
    return inode;
  }
  return 0;
}

bool procLocksMayList(const std::string& locks, const std::string& entryName) {
  return locks.find("OFDLCK") != std::string::npos || locks.find(entryName) != std::string::npos;
}

bool fdinfoShowsLock(const std::string& fdinfo) {
  return fdinfo.find("OFDLCK") != std::string::npos || fdinfo.find("POSIX") != std::string::npos;
}

}  // namespace Tarvo::Util::Impl
