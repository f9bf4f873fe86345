#pragma once

#include <cstddef>
#include <string_view>

namespace tarnlink {

/// Octets of a text that are kept; an ObjectReference has 129 at most (IEC 61850-7-2).
inline constexpr std::size_t kMaxKeptText = 255;

/// The text's beginning that is kept: whole characters of UTF-8.
inline std::string_view shortText(std::string_view text) {
  if (text.size() <= kMaxKeptText) return text;
  std::size_t end = kMaxKeptText;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

}  // namespace tarnlink
