// FuzzCheck.h - a broken expectation in a fuzz target must end the run as a
// crash, so that libFuzzer keeps the input that caused it.
#ifndef TOVI_TESTS_FUZZCHECK_H
#define TOVI_TESTS_FUZZCHECK_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                            \
  do {                                                                              \
    if (!(cond)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                 \
    }                                                                               \
  } while (0)

#endif
