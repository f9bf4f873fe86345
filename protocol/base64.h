// Base64 with the standard alphabet and padding (RFC 4648, section 4).
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "goosestack/bytes.h"

namespace tarnlink {

constexpr std::size_t base64Length(std::size_t octets) {
  return (octets + 2) / 3 * 4;
}

/// Writes base64Length(octets.size()) characters; returns the position behind them.
char* writeBase64(goosestack::ByteView octets, char* out);

/// Strict: nothing for missing padding, whitespace, other characters, or bits set in the part of
/// the last character that carries no data (RFC 4648, sections 3.2, 3.3 and 3.5).
std::optional<goosestack::Bytes> decodeBase64(std::string_view text);

}  // namespace tarnlink
