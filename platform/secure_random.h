// Port to the system's cryptographic random source.
#pragma once

#include <cstdint>

namespace tarnlink {

/// 32 strong random bits. Blocks only before the kernel's source is first seeded; ends the process
/// when the system has no random source at all.
std::uint32_t secureRandom32();

}  // namespace tarnlink
