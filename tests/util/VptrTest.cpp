#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

#include "Tarvo/DisplayPointer.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Mappings.h"
#include "Tarvo/UtilNet.h"

namespace Tarvo {
namespace {

const void* vptrOf(const void* object) {
  return *static_cast<const void* const*>(object);
}

// Re-executed with TARVO_VPTR_CHILD set, this binary holds a Tarvo::Exception (its virtual
// table lives in libTarvo.so), prints the object's vptr and waits until its standard input
// closes. The fresh exec loads libTarvo.so at an address of its own.
const bool childServed = [] {
  if (std::getenv("TARVO_VPTR_CHILD") == nullptr) {
    return false;
  }
  Exception object("held by the child", false);
  std::printf("%p\n", vptrOf(&object));
  std::fflush(stdout);
  char c;
  _exit(static_cast<int>(read(STDIN_FILENO, &c, 1)));
}();

TEST(TypenameFromVptr, NamesTypeOfObjectInAnotherProcess) {
  ASSERT_FALSE(childServed);
  int toChild[2], fromChild[2];
  ASSERT_EQ(pipe2(toChild, O_CLOEXEC) | pipe2(fromChild, O_CLOEXEC), 0);
  pid_t child = fork();
  if (child == 0) {
    dup2(toChild[0], STDIN_FILENO);
    dup2(fromChild[1], STDOUT_FILENO);
    setenv("TARVO_VPTR_CHILD", "1", 1);
    execl("/proc/self/exe", "child", static_cast<char*>(nullptr));
    _exit(126);
  }
  close(toChild[0]);
  close(fromChild[1]);
  char line[64] = {};
  EXPECT_GT(read(fromChild[0], line, sizeof line - 1), 0);
  const void* vptr = reinterpret_cast<const void*>(std::strtoull(line, nullptr, 16));

  std::string error;
  const char* name = Util::typenameFromVptr(child, vptr, error);
  EXPECT_STREQ(name, typeid(Exception).name()) << error;

  // A pointer right at the start of its mapping has no type-information slot before it.
  MappingInfo mapping = PidMappings::mappingInfos(child).find(vptr);
  EXPECT_EQ(Util::typenameFromVptr(child, reinterpret_cast<void*>(mapping.start), error), nullptr);
  EXPECT_EQ(error.rfind("Bad vptr:0x", 0), 0u) << error;
  EXPECT_NE(error.find("mapping:MappingInfo { start:0x"), std::string::npos) << error;

  close(toChild[1]);
  close(fromChild[0]);
  waitpid(child, nullptr, 0);
  EXPECT_EQ(Util::typenameFromVptr(child, vptr, error), nullptr);
  EXPECT_EQ(error, "Could not find mapping for vptr:" + DisplayPointer(vptr).toString() +
                       " otherPid:" + std::to_string(child));
}

// Word arrays posing as a virtual table and type information; non-zero initial values place
// them in the program file's data segment.
uintptr_t fakeVtable[3] = {0x10, 0x10, 0x10};
uintptr_t fakeTypeInfo[3] = {0x10, 0x10, 0x10};

TEST(TypenameFromVptr, ExplainsBadTablesInsteadOfThrowing) {
  std::string error;
  auto heap = std::make_unique<uintptr_t[]>(64);
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &heap[32], error), nullptr);
  EXPECT_EQ(error.rfind("Failed to open library for vptr:", 0), 0u) << error;

  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_EQ(error.rfind("No typeInfo mapping found for vptr:", 0), 0u) << error;
  EXPECT_NE(error.find("typeInfoPtr:0x00000010"), std::string::npos) << error;

  fakeVtable[0] = reinterpret_cast<uintptr_t>(&fakeTypeInfo[0]);
  fakeTypeInfo[1] = reinterpret_cast<uintptr_t>(heap.get());  // the name lies outside the file
  EXPECT_EQ(Util::typenameFromVptr(getpid(), &fakeVtable[1], error), nullptr);
  EXPECT_EQ(error.rfind("TypeInfo is not stored in proper mapping. Expected:MappingInfo {", 0), 0u)
      << error;
}

}  // namespace
}  // namespace Tarvo
