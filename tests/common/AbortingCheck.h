// The check of the programs that run without a test framework (the fuzz targets and the stress
// programs): a failed condition ends the process with its text and place, so that libFuzzer
// keeps the input that led there and a stress run stops at the first fault.
#pragma once

#include <cstdio>
#include <cstdlib>

#define TARVO_CHECK(condition)                                                           \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (0)
