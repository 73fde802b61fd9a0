#ifndef BOARDKIT_TESTS_REQUIRE_H
#define BOARDKIT_TESTS_REQUIRE_H

#include <cstdlib>

/// What a fuzzer expects of its target: where it does not hold, the process ends, and the fuzzer keeps the input.
inline void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

#endif
