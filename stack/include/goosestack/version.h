// Version of the GooseStack library, which is not that of the programs: it follows these headers.
// CMake's package and Debian's take theirs from here.
#pragma once

#include <string_view>

namespace goosestack {

inline constexpr std::string_view version = "1.0.0";

}  // namespace goosestack
