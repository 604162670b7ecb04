#include "common/TestSupport.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>

namespace Tarvo::Test {
namespace {

constexpr const char* kChildMarker = "TARVO_TEST_CHILD=1";

// Everything written to `file` so far, read from its start.
std::string readAll(FILE* file) {
  std::string text;
  char buffer[4096];
  std::rewind(file);
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
    text.append(buffer, n);
  }
  std::fclose(file);
  return text;
}

// Forks; the child sends its standard output and error to two temporary files (a chatty
// child can never block on a full pipe) and runs `body`; the parent collects both files and
// the exit status.
ChildResult forkCaptured(const std::function<void()>& body) {
  FILE* out = std::tmpfile();
  FILE* err = std::tmpfile();
  if (out == nullptr || err == nullptr) {
    throw std::runtime_error("tmpfile failed");
  }
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid == 0) {
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    body();
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  ChildResult result;
  if (WIFEXITED(status)) {
    result.exitCode = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  result.out = readAll(out);
  result.err = readAll(err);
  return result;
}

}  // namespace

ChildResult runInChild(const std::function<int()>& body) {
  return forkCaptured([&] {
    int code = body();
    fflush(nullptr);
    _exit(code);
  });
}

ChildResult runSelf(const std::string& gtestFilter, const std::vector<std::string>& env) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  return forkCaptured([&] {
    for (const std::string& entry : env) {
      putenv(const_cast<char*>(entry.c_str()));
    }
    putenv(const_cast<char*>(kChildMarker));
    std::string filter = "--gtest_filter=" + gtestFilter;
    execl(self.c_str(), self.c_str(), filter.c_str(), "--gtest_brief=1",
          static_cast<char*>(nullptr));
    _exit(126);
  });
}

bool isChildRun() {
  const char* marker = std::getenv("TARVO_TEST_CHILD");
  return marker != nullptr && std::strcmp(marker, "1") == 0;
}

int openFdCount() {
  // Less the directory stream's own descriptor.
  std::filesystem::directory_iterator fds("/proc/self/fd");
  return static_cast<int>(std::distance(fds, std::filesystem::directory_iterator())) - 1;
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tarvo-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace Tarvo::Test
