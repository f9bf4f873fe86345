// A steady flow of messages from the wire to a few clients, through the real tarnlinkd.
#pragma once

#include <cstdint>

namespace tarnlink::bench {

/// Measures and prints its rows. Uses the port and the next one, in a private network namespace.
/// Throws std::runtime_error when a frame is lost.
void measureSteadyFanOut(std::uint16_t port);

}  // namespace tarnlink::bench
