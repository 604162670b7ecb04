// /proc/<pid>/cmdline through the file reader it uses: the bytes go into a scratch file and
// fileRead must give back exactly those before the first NUL byte, whatever their length.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "Tarvo/UtilFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = Tarvo::Fuzz::scratchDirectory() + "/cmdline";
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FUZZ_CHECK(fd >= 0);
  FUZZ_CHECK(::write(fd, data, size) == static_cast<ssize_t>(size));
  ::close(fd);
  std::string bytes(reinterpret_cast<const char*>(data), size);
  std::string read = Tarvo::Util::fileRead(Tarvo::Fuzz::quietHandler(), path, true);
  FUZZ_CHECK(read == bytes.substr(0, bytes.find('\0')));
  return 0;
}
