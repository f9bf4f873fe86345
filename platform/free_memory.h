// Port to the heap of this process.
#pragma once

#include <cstddef>

namespace tarnlink {

/// Freed memory that may stay with the process: a steady load would ask for it again. Octets.
inline constexpr std::size_t kKeptFreeMemory = 16 << 20;

/// Gives freed memory back to the system once more than kKeptFreeMemory has piled up, as it does
/// when many messages have waited for somebody. That takes some 10 ms, in which no thread
/// allocates; finding that there is nothing to do takes 20 microseconds. Any thread.
void returnFreeMemory();

}  // namespace tarnlink
