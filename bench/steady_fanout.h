// A steady flow of messages from the wire to a few clients, through the real tarnlinkd.
#pragma once

namespace tarnlink::bench {

/// Measures and prints its rows, in a private network namespace. Throws std::runtime_error when a
/// frame is lost.
void measureSteadyFanOut();

}  // namespace tarnlink::bench
