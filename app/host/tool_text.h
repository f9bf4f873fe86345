// What tools wrote, for people.
#pragma once

#include <string>
#include <string_view>

namespace tarnlink {

/// The text without the white space around it; `otherwise` where it is not UTF-8.
std::string readableText(std::string_view text, std::string_view otherwise);

}  // namespace tarnlink
