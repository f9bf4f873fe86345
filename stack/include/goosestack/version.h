// Version of the GooseStack library.
#pragma once

#include <string_view>

namespace goosestack {

inline constexpr std::string_view version = "1.0.0";

}  // namespace goosestack
