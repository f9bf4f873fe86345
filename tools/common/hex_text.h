// Octets as pairs of hexadecimal digits.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "goosestack/bytes.h"

namespace tarnlink {

/// Upper-case digits, nothing between them.
std::string hexText(goosestack::ByteView octets);

/// Digits of either case, nothing between them; nothing for any other text.
std::optional<goosestack::Bytes> parseHex(std::string_view text);

}  // namespace tarnlink
