#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
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

// Copies `size` bytes at `address` of this process through the kernel, which answers a fault
// with an error: an unmapped page, or a page of a file mapping beyond the end of the file, makes
// this return false where touching the memory would raise SIGSEGV or SIGBUS.
bool readOwn(Word address, void* out, size_t size) {
  iovec local{out, size};
  iovec remote{reinterpret_cast<void*>(address), size};
  return ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

// Whether a NUL-terminated string starts at `address` and ends inside `mapping`, every byte of
// it readable. Read in pieces that never cross a page, so that each piece is read whole or not.
bool readableString(Word address, const MappingInfo& mapping) {
  const Word page = static_cast<Word>(::sysconf(_SC_PAGESIZE));
  char piece[256];
  while (address < mapping.end) {
    size_t size = std::min({sizeof piece, page - address % page, mapping.end - address});
    if (!readOwn(address, piece, size)) {
      return false;
    }
    if (std::memchr(piece, '\0', size) != nullptr) {
      return true;
    }
    address += size;
  }
  return false;
}

}  // namespace

void* resolveSym(Platform::DebugHandler* h, const char* symbolName) {
  Platform::DebugHandler& trace = Impl::traceHandler(h);
  if (symbolName == nullptr) {
    lastError = "null symbol name";
    hasLastError = true;
    TARVO_TRACE(trace, 1, "Util::resolveSym() symbolName:(null) unable to resolve:" << lastError);
    return nullptr;
  }
  // The handle of the program's global scope; it is never closed.
  void* global = dlopen(nullptr, RTLD_LAZY);
  if (global == nullptr) {
    const char* reason = dlerror();
    debugAndThrowAssertException(
        &trace, 1, std::string("Util::resolveSym() dlopen() failed: ") + (reason ? reason : ""),
        "Util", __func__, __LINE__);
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
  const void* typeInfo = nullptr;
  if (!readOwn(local - kSlot, &typeInfo, sizeof typeInfo)) {
    why << "Could not read typeInfo ptr for vptr:" << DisplayPointer(vptr)
        << " otherPid:" << std::dec << otherPid << " myMapping:" << myMapping;
    return failed();
  }
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
  const char* name = nullptr;
  if (!readOwn(wordOf(typeInfo) + kSlot, &name, sizeof name)) {
    why << "Could not read typeInfo for ";
    describe();
    return failed();
  }
  MappingInfo nameMapping = mine.find(name);
  if (nameMapping.path != myMapping.path || !readable(nameMapping)) {
    why << "TypeInfo is not stored in proper mapping. Expected:" << myMapping
        << " but found:" << nameMapping;
    return failed();
  }
  if (!readableString(wordOf(name), nameMapping)) {
    why << "Could not read type name at:" << DisplayPointer(name) << " for ";
    describe();
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
