#include "tools/tarnlinkctl/option_checks.h"

#include <charconv>
#include <cstdint>

#include "protocol/json_value_codec.h"
#include "tools/tarnlinkctl/options.h"

namespace tarnlink {
namespace {

template <class Number>
std::optional<Number> parseWhole(std::string_view text, int base = 10) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

std::optional<std::uint16_t> parseAppId(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    return parseWhole<std::uint16_t>(text.substr(2), 16);
  }
  return parseWhole<std::uint16_t>(text);
}

std::string checkAppId(const std::string& text) {
  return parseAppId(text) ? "" : "must be 0 to 65535, or 0x0 to 0xFFFF: " + text;
}

std::string checkCode(const std::string& text) {
  const bool isCode = text.size() == 6 && text.find_first_not_of("0123456789") == text.npos;
  return isCode ? "" : "a pairing code has six digits: " + text;
}

std::string checkCount(const std::string& text) {
  return parseWhole<std::uint64_t>(text).value_or(0) > 0 ? "" : "must be a number above 0: " + text;
}

std::string checkMac(const std::string& text) {
  return parseMacAddress(text) ? "" : "must be an address like 01:0C:CD:01:00:01: " + text;
}

}  // namespace tarnlink
