#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "Tarvo/DisplayPointer.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Mappings.h"
#include "Tarvo/UtilNet.h"
#include "util/UtilTrace.h"

namespace Tarvo {
namespace Util {
namespace {

// The reason of the last failed lookup on this thread; `hasLastError` says whether it is
// still unread.
thread_local std::string lastError;
thread_local bool hasLastError = false;

using Word = MappingInfo::Word;

Word wordOf(const void* pointer) {
  return reinterpret_cast<Word>(pointer);
}

bool readable(const MappingInfo& info) {
  return !info.perms.empty() && info.perms[0] == 'r';
}

}  // namespace

void* resolveSym(Platform::DebugHandler* h, const char* symbolName) {
  Platform::DebugHandler& trace = Impl::traceHandler(h);
  // The handle of the program's global scope; it is never closed.
  void* global = dlopen(nullptr, RTLD_LAZY);
  if (global == nullptr) {
    const char* reason = dlerror();
    debugAndThrowAssertException(
        &trace, 1, std::string("Util::resolveSym() dlopen() failed: ") + (reason ? reason : ""),
        __FILE__, __func__, __LINE__);
  }
  dlerror();
  void* address = dlsym(global, symbolName);
  if (const char* reason = dlerror()) {
    lastError = reason;
    hasLastError = true;
    TARVO_TRACE(trace, 1,
                "Util::resolveSym() symbolName:" << symbolName << " unable to resolve:" << reason);
    return address;
  }
  TARVO_TRACE(trace, 5,
              "Util::resolveSym() sym:" << symbolName << " found at " << DisplayPointer(address));
  return address;
}

const char* resolveSymError() {
  if (!hasLastError) {
    return nullptr;
  }
  hasLastError = false;
  return lastError.c_str();
}

const char* typenameFromVptr(int otherPid, const void* vptr, std::string& error) {
  constexpr Word kSlot = sizeof(void*);
  std::ostringstream why;
  auto failed = [&]() -> const char* {
    error = why.str();
    return nullptr;
  };

  MappingInfo theirs = PidMappings::populate(otherPid).find(vptr);
  if (theirs.start == 0 && theirs.end == 0) {
    why << "Could not find mapping for vptr:" << DisplayPointer(vptr) << " otherPid:" << std::dec
        << otherPid;
    return failed();
  }
  // The virtual table's type-information slot lies just before the pointer.
  Word remote = wordOf(vptr);
  if (theirs.start + kSlot > remote || remote + kSlot >= theirs.end) {
    why << "Bad vptr:" << DisplayPointer(vptr) << " otherPid:" << std::dec << otherPid
        << " mapping:" << theirs;
    return failed();
  }

  // Loading the file makes it map here too (it stays loaded). A file this process already maps
  // but cannot load again, such as the main program, serves as well.
  bool isFile = !theirs.path.empty() && theirs.path[0] == '/';
  void* handle = isFile ? dlopen(theirs.path.c_str(), RTLD_LAZY) : nullptr;
  if (handle == nullptr) {
    dlerror();
  }
  MappingInfos mine = PidMappings::populate(getpid());
  MappingInfo myMapping = mine.find(theirs.path, theirs.offset);
  if (!isFile || myMapping.end - myMapping.start < theirs.end - theirs.start ||
      !readable(myMapping) || (handle == nullptr && myMapping.start == 0)) {
    why << "Failed to open library for vptr:" << DisplayPointer(vptr) << " otherPid:" << std::dec
        << otherPid << " other mapping:" << theirs;
    return failed();
  }

  Word local = remote - theirs.start + myMapping.start;
  auto typeInfo = reinterpret_cast<const void* const*>(local)[-1];
  MappingInfo typeInfoMapping = mine.find(typeInfo);
  auto describe = [&] {
    why << "vptr:" << DisplayPointer(vptr) << " otherPid:" << std::dec << otherPid
        << " typeInfoPtr:" << DisplayPointer(typeInfo) << " myMapping:" << myMapping;
  };
  if ((typeInfoMapping.start == 0 && typeInfoMapping.end == 0) || !readable(typeInfoMapping)) {
    why << "No typeInfo mapping found for ";
    describe();
    return failed();
  }
  if (wordOf(typeInfo) + 2 * kSlot > typeInfoMapping.end) {
    why << "TypeInfo ptr crosses mappings, ";
    describe();
    return failed();
  }

  // std::type_info holds its virtual-table pointer, then the name.
  auto name = static_cast<const char* const*>(typeInfo)[1];
  MappingInfo nameMapping = mine.find(name);
  if (nameMapping.path != myMapping.path || !readable(nameMapping)) {
    why << "TypeInfo is not stored in proper mapping. Expected:" << myMapping
        << " but found:" << nameMapping;
    return failed();
  }
  return name;
}

}  // namespace Util

namespace HeapChecker {

void* resolveAllocSym(Platform::DebugHandler* h) {
  return std::getenv("HEAPCHECK") ? Util::resolveSym(h, "HeapChecker_RecordClientAlloc") : nullptr;
}

void* resolveFreeSym(Platform::DebugHandler* h) {
  return std::getenv("HEAPCHECK") ? Util::resolveSym(h, "HeapChecker_RecordClientFree") : nullptr;
}

}  // namespace HeapChecker
}  // namespace Tarvo
