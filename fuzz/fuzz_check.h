// The fuzz targets' assertion: an invariant that does not hold aborts the run with its text, in
// every build (release builds define NDEBUG, so assert() would vanish).
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                      \
  do {                                                                                             \
    if (!(condition)) {                                                                            \
      (void)std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                                \
    }                                                                                              \
  } while (false)
