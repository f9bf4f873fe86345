// Counts calls of operator new in the program that links it, at no cost that a bench could see.
#pragma once

#include <cstddef>

namespace tarnlink::test {

/// By the calling thread, since it began.
std::size_t allocationCount();

}  // namespace tarnlink::test
