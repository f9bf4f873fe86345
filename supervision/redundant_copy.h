#pragma once

#include <chrono>

namespace tarnlink {

/// Redundant networks (IEC 62439-3) deliver the second copy of a message within this time.
inline constexpr std::chrono::microseconds kRedundantCopyWithin{5000};

/// Publishers that restart unseen go on behind the numbers known: after so many messages in a row,
/// each the next of the one before, theirs are the stream's numbers.
inline constexpr int kMessagesOfANewCount = 4;

}  // namespace tarnlink
