// Helpers shared by the fuzz targets.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "../common/AbortingCheck.h"
#include "Tarvo/Debug.h"

namespace Tarvo::Fuzz {

// A trace handler with every level off, for the parsers that trace as they go: the search
// runs at full speed and the output holds only findings.
inline Platform::DebugHandler& quietHandler() {
  static Platform::DebugHandler* handler = Platform::getDebugHandler("FuzzQuiet");
  return *handler;
}

// A fresh directory for targets that go through the file system, removed with its content at
// exit. On /dev/shm when there is one: a disk-backed /tmp slows such targets tenfold.
inline const std::string& scratchDirectory() {
  // Never freed: the exit handler that removes the directory runs after static destructors.
  static const std::string* const path = [] {
    std::string pattern = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    pattern += "/tarvo-fuzz-XXXXXX";
    TARVO_CHECK(::mkdtemp(pattern.data()) != nullptr);
    auto* made = new std::string(pattern);
    std::atexit([] { std::filesystem::remove_all(scratchDirectory()); });
    return made;
  }();
  return *path;
}

}  // namespace Tarvo::Fuzz
