#include "app/host/tool_text.h"

#include <cstdint>

#include "goosestack/utf8.h"

namespace tarnlink {

std::string readableText(std::string_view text, std::string_view otherwise) {
  constexpr const char* kSpace = " \t\r\n\v\f";
  const auto* octets = reinterpret_cast<const std::uint8_t*>(text.data());
  if (!goosestack::isValidUtf8({octets, text.size()})) return std::string(otherwise);
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(kSpace) - first + 1));
}

}  // namespace tarnlink
