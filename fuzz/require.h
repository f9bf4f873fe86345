// How a fuzz target reports a property that does not hold: it ends the process, and libFuzzer keeps
// the input.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace tarnlink::fuzz {

inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

}  // namespace tarnlink::fuzz
