// Counts calls of operator new in the test program that links it.
#pragma once

#include <cstddef>

namespace tarnlink::test {

/// Since the program's start, on all threads.
std::size_t allocationCount();

}  // namespace tarnlink::test
