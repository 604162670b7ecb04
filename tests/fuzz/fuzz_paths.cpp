// trimpath and mkpath. Any pair of texts gets the directories trimpath would remove, deepest
// first, each inside the trailing part, or AssertException for bad arguments. Then, inside a
// scratch directory, mkpath creates the input's path and trimpath removes all of it again:
// the scratch directory is left empty.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Tarvo/Exception.h"
#include "Tarvo/UtilFiles.h"
#include "util/PathPlan.h"

namespace {

bool isEmptyDir(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_empty(path, ec) && !ec;
}

void checkPlan(const std::string& absolute, const std::string& trailing) {
  std::vector<std::string> dirs;
  try {
    dirs = Tarvo::Util::Impl::trimpathDirectories(absolute, trailing);
  } catch (const Tarvo::AssertException&) {
    TARVO_CHECK(absolute.empty() || absolute[0] != '/' || trailing.empty() ||
                trailing.size() >= absolute.size() ||
                absolute.compare(absolute.size() - trailing.size(), trailing.size(), trailing) !=
                    0 ||
                absolute.find('\0') != std::string::npos);
    return;
  }
  const size_t base = absolute.size() - trailing.size();
  TARVO_CHECK(!dirs.empty() && dirs.front() == absolute);
  for (size_t i = 1; i < dirs.size(); ++i) {
    TARVO_CHECK(dirs[i].size() > base && dirs[i].size() < dirs[i - 1].size());
    TARVO_CHECK(absolute.compare(0, dirs[i].size(), dirs[i]) == 0 &&
                absolute[dirs[i].size()] == '/');
  }
}

// Paths that stay inside the scratch directory: no NUL, no "." or ".." component.
bool staysInside(const std::string& relative) {
  if (relative.empty() || relative.size() > 1024 || relative.find('\0') != std::string::npos) {
    return false;
  }
  size_t start = 0;
  while (start <= relative.size()) {
    size_t slash = relative.find('/', start);
    std::string part = relative.substr(start, slash == std::string::npos ? slash : slash - start);
    if (part == "." || part == ".." || part.size() > 64) {
      return false;
    }
    if (slash == std::string::npos) {
      break;
    }
    start = slash + 1;
  }
  return relative[0] != '/';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  size_t split = input.find('\n');
  if (split != std::string::npos) {
    checkPlan(input.substr(0, split), input.substr(split + 1));
  }
  checkPlan("/" + input, input);

  if (!staysInside(input)) {
    return 0;
  }
  const std::string& scratch = Tarvo::Fuzz::scratchDirectory();
  std::string absolute = scratch + "/" + input;
  if (Tarvo::Util::mkpath(absolute, 0700) == 0) {
    struct stat st;
    TARVO_CHECK(::stat(absolute.c_str(), &st) == 0 && S_ISDIR(st.st_mode));
    TARVO_CHECK(Tarvo::Util::trimpath(absolute, input) == 0);
    TARVO_CHECK(isEmptyDir(scratch));
  }
  // Whatever mkpath left behind on a failure goes before the next input.
  for (const auto& entry : std::filesystem::directory_iterator(scratch)) {
    std::filesystem::remove_all(entry.path());
  }
  return 0;
}
