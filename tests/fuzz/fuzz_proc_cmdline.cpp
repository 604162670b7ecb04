// /proc/<pid>/cmdline through the file reader it uses: the bytes go into a scratch file and
// fileRead must give back exactly those before the first NUL byte, cut at the size limit the
// input's last two bytes choose.
#include <fcntl.h>
#include <unistd.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "Tarvo/UtilFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = Tarvo::Fuzz::scratchDirectory() + "/cmdline";
  FuzzedDataProvider in(data, size);
  const size_t limit = in.ConsumeIntegralInRange<size_t>(0, 5000);
  const std::string bytes = in.ConsumeRemainingBytesAsString();
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  TARVO_CHECK(fd >= 0);
  TARVO_CHECK(::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  ::close(fd);
  std::string read = Tarvo::Util::fileRead(Tarvo::Fuzz::quietHandler(), path, true, limit);
  TARVO_CHECK(read == bytes.substr(0, std::min(bytes.find('\0'), limit)));
  return 0;
}
