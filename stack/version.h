// Version of the GooseStack library.
#pragma once

#include <string_view>

namespace tarnlink {

inline constexpr std::string_view version = "1.0.0";

}  // namespace tarnlink
