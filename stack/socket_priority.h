// The priority of what a socket sends, as the system's network stack sees it.
#pragma once

#include <cstdint>

namespace goosestack {

/// 0 to 7. Where the system refuses it, frames leave with the priority they had: a lesser fault
/// than not sending.
void setSocketPriority(int socket, std::uint8_t priority);

}  // namespace goosestack
