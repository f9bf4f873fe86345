// Octet sequences of the stack: an owning buffer and a borrowed view of one.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace goosestack {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

}  // namespace goosestack
