#include "Tarvo/Thread.h"

#include <pthread.h>

#include <cstring>
#include <string>

#include "Tarvo/Debug.h"
#include "Tarvo/Exception.h"
#include "Tarvo/Platform.h"

namespace Tarvo {
namespace {
constexpr size_t kNameSize = 16;
thread_local char nameCache[kNameSize];
}  // namespace

const char* threadName() {
  if (nameCache[0] != '\0') {
    return nameCache;
  }
  int rc = pthread_getname_np(pthread_self(), nameCache, kNameSize);
  if (rc != 0) {
    Platform::DebugStream message;
    message << "Tarvo::threadName() pthread_getname_np() failed:" << rc;
    debugAndThrowAssertException(nullptr, 0, message, "ThreadCpp", "threadName", __LINE__);
  }
  return nameCache;
}

void threadNameIs(const char* name) {
  if (Platform::isMainThread()) {
    return;
  }
  int rc = pthread_setname_np(pthread_self(), name);
  if (rc != 0) {
    Platform::DebugStream message;
    message << "Tarvo::threadNameIs() pthread_setname_np() failed:" << rc << " for name:" << name;
    debugAndThrowAssertException(nullptr, 0, message, "ThreadCpp", "threadNameIs", __LINE__);
  }
  std::strncpy(nameCache, name, kNameSize);
  nameCache[kNameSize - 1] = '\0';
}

}  // namespace Tarvo
