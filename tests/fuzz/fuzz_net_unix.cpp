// /proc/net/unix texts: the inode of the first line naming a socket. The input is the socket
// name, a NUL byte, then the text. The answer is 0, or the number in the column before the
// last blank of the first line holding the name.
#include <cstdint>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "util/ProcParse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  size_t split = input.find('\0');
  if (split == std::string::npos) {
    return 0;
  }
  std::string name = input.substr(0, split);
  std::string text = input.substr(split + 1);
  unsigned long inode =
      Tarvo::Util::Impl::socketInodeFromNetUnix(Tarvo::Fuzz::quietHandler(), text, name);
  if (inode == 0) {
    return 0;
  }
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line) && line.find(name) == std::string::npos) {
  }
  TARVO_CHECK(line.find(name) != std::string::npos);
  // The inode is written in the line as it is answered (a leading sign or zeros aside).
  TARVO_CHECK(line.find(std::to_string(inode)) != std::string::npos);
  return 0;
}
