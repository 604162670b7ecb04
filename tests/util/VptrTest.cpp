#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

#include "Tarvo/Exception.h"
#include "Tarvo/Mappings.h"
#include "Tarvo/UtilNet.h"

namespace Tarvo {
namespace {

constexpr const char* kChildEnv = "TARVO_VPTR_CHILD";

const void* vptrOf(const void* object) {
  return *static_cast<const void* const*>(object);
}

// Re-executed as a child with kChildEnv set, this binary holds a Tarvo::Exception (its virtual
// table lives in libTarvo.so), prints its virtual-table pointer and waits until the parent
// closes its standard input. The fresh exec gives libTarvo.so its own load address.
const bool childServed = [] {
  if (std::getenv(kChildEnv) == nullptr) {
    return false;
  }
  Exception object("held by the child", false);
  std::printf("%p\n", vptrOf(&object));
  std::fflush(stdout);
  char c;
  (void)!read(STDIN_FILENO, &c, 1);
  _exit(0);
}();

// A live re-executed child and the vptr it reported.
class VptrChild {
 public:
  VptrChild() {
    char self[PATH_MAX];
    ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    int toChild[2], fromChild[2];
    if (len < 0 || pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
      return;
    }
    self[len] = '\0';
    pid_ = fork();
    if (pid_ == 0) {
      dup2(toChild[0], STDIN_FILENO);
      dup2(fromChild[1], STDOUT_FILENO);
      setenv(kChildEnv, "1", 1);
      execl(self, self, static_cast<char*>(nullptr));
      _exit(126);
    }
    close(toChild[0]);
    close(fromChild[1]);
    toChild_ = toChild[1];
    char line[64] = {};
    ssize_t n = read(fromChild[0], line, sizeof line - 1);
    close(fromChild[0]);
    if (n > 0) {
      vptr_ = reinterpret_cast<const void*>(std::strtoull(line, nullptr, 16));
    }
  }
  ~VptrChild() {
    if (pid_ > 0) {
      close(toChild_);
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  const void* vptr() const { return vptr_; }

 private:
  pid_t pid_ = -1;
  int toChild_ = -1;
  const void* vptr_ = nullptr;
};

TEST(TypenameFromVptr, NamesTypeOfObjectInAnotherProcess) {
  ASSERT_FALSE(childServed);
  VptrChild child;
  ASSERT_GT(child.pid(), 0);
  ASSERT_NE(child.vptr(), nullptr);

  std::string error;
  const char* name = Util::typenameFromVptr(child.pid(), child.vptr(), error);
  ASSERT_NE(name, nullptr) << error;
  EXPECT_STREQ(name, typeid(Exception).name());
  EXPECT_EQ(error, "");

  // The same in this process, for an object of a type derived in the library.
  RuntimeException local("here");
  const char* localName = Util::typenameFromVptr(getpid(), vptrOf(&local), error);
  ASSERT_NE(localName, nullptr) << error;
  EXPECT_STREQ(localName, typeid(RuntimeException).name());

  // A pointer right at the start of its mapping has no type-information slot before it.
  MappingInfo mapping = PidMappings::populate(child.pid()).find(child.vptr());
  auto start = reinterpret_cast<const void*>(mapping.start);
  EXPECT_EQ(Util::typenameFromVptr(child.pid(), start, error), nullptr);
  EXPECT_EQ(error.rfind("Bad vptr:", 0), 0u) << error;
  EXPECT_NE(error.find("mapping:MappingInfo { start:0x"), std::string::npos) << error;
}

// Word arrays that look like virtual tables and type information. Their non-zero initial
// values place them in the program file's data segment.
uintptr_t fakeVtable[3] = {0x10, 0x10, 0x10};
uintptr_t fakeTypeInfo[3] = {0x10, 0x10, 0x10};

TEST(TypenameFromVptr, ExplainsEveryFailureInsteadOfThrowing) {
  std::string error;
  int vanished = fork();
  if (vanished == 0) {
    _exit(0);
  }
  waitpid(vanished, nullptr, 0);
  EXPECT_EQ(Util::typenameFromVptr(vanished, &error, error), nullptr);
  EXPECT_EQ(error.rfind("Could not find mapping for vptr:0x", 0), 0u) << error;
  EXPECT_NE(error.find(" otherPid:" + std::to_string(vanished)), std::string::npos) << error;

  // Heap memory belongs to no file that could be loaded.
  auto heap = std::make_unique<uintptr_t[]>(64);
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &heap[32], error), nullptr);
  EXPECT_EQ(error.rfind("Failed to open library for vptr:", 0), 0u) << error;

  // The word before the pointer leads nowhere.
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_EQ(error.rfind("No typeInfo mapping found for vptr:", 0), 0u) << error;
  EXPECT_NE(error.find("typeInfoPtr:0x00000010"), std::string::npos) << error;

  // Type information whose name lies outside the program file.
  fakeVtable[0] = reinterpret_cast<uintptr_t>(&fakeTypeInfo[0]);
  fakeTypeInfo[1] = reinterpret_cast<uintptr_t>(heap.get());
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_EQ(error.rfind("TypeInfo is not stored in proper mapping. Expected:MappingInfo {", 0), 0u)
      << error;
}

}  // namespace
}  // namespace Tarvo
