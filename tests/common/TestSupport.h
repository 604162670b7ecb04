// Helpers shared by the test suites: child processes with captured output, descriptor
// counts and scratch directories.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Tarvo::Test {

struct ChildResult {
  int exitCode = -1;  // the child's exit status, or -1 when it was killed
  int signal = 0;     // the signal that killed it, or 0
  std::string out;    // what it wrote on standard output
  std::string err;    // what it wrote on standard error
};

// Runs `body` in a forked child whose standard output and error are captured; the child
// exits with the value `body` returns.
ChildResult runInChild(const std::function<int()>& body);

// Re-runs this test binary in a child with the extra environment entries ("NAME=value"),
// running only the tests that `gtestFilter` selects. In the child, isChildRun() is true.
// Variables the library reads at load time can only be tested this way.
ChildResult runSelf(const std::string& gtestFilter, const std::vector<std::string>& env);
bool isChildRun();

// The number of descriptors this process has open.
int openFdCount();

// A fresh directory under the system's temporary directory, removed with its content when
// the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace Tarvo::Test
