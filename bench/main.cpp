// What all benches start with: run() is the bench's own.
#include <errno.h>

#include <cstdio>
#include <exception>

#include "bench/report.h"

int main() {
  try {
    tarnlink::bench::run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.what());
    return 1;
  }
}
