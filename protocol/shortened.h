// Texts from outside, cut before they enter a log line or an error.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarnlink {

/// Octets of a client's text that a log line repeats. A name or a reference fits (IEC 61850-7-2
/// allows 129 characters for the latter); whatever is longer is no news to the reader.
inline constexpr std::size_t kMaxLoggedText = 160;

/// The text, or its first `limit` octets at most with "…" behind them; a code point of UTF-8 stays
/// whole.
inline std::string shortened(std::string_view text, std::size_t limit = kMaxLoggedText) {
  if (text.size() <= limit) return std::string(text);
  while (limit != 0 && (static_cast<unsigned char>(text[limit]) & 0xC0) == 0x80) --limit;
  return std::string(text.substr(0, limit)) + "…";
}

}  // namespace tarnlink
