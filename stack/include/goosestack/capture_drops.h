// Frames that the kernel captured and had no room for.
#pragma once

#include <cstdint>

namespace goosestack {

/// As the kernel counts them; only frames that passed the capture's filter.
struct CaptureDrops {
  std::uint64_t fresh = 0;  ///< Since the report before.
  std::uint64_t total = 0;  ///< Since the capture began.
  bool isLast = false;      ///< The capture has ended: fresh may be 0, total is not.
};

}  // namespace goosestack
