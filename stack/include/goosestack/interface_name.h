// The one rule for interface names that come from outside.
#pragma once

#include <cstddef>
#include <string_view>

namespace goosestack {

/// IFNAMSIZ without its terminator: the longest name the systems take.
inline constexpr std::size_t kMaxInterfaceNameLength = 15;

/// True for an ASCII letter followed by ASCII letters and digits, 15 characters at most.
bool isValidInterfaceName(std::string_view name);

}  // namespace goosestack
