#include "tools/common/printing.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "protocol/base64.h"
#include "tools/common/hex_text.h"

namespace tarnlink {
namespace {

// Of an SV payload: the header and what a merging unit calls its stream.
constexpr std::size_t kShownSvOctets = 32;

void appendEscaped(std::string& out, unsigned char octet) {
  out += "\\x" + hexText({&octet, 1});
}

template <class Float>
std::string shortest(Float number) {
  std::array<char, 64> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
  return {text.data(), end};
}

std::string textOf(const Json& object, std::string_view key) {
  const auto* text = findString(object, key);
  return text ? printable(*text) : "?";
}

std::string integerOf(const Json& object, std::string_view key) {
  const auto number = findInteger(object, key);
  return number ? std::to_string(*number) : "?";
}

std::string hexOf(const Json& value) {
  goosestack::Bytes octets;
  if (const auto* numbers = findArray(value, "bytes")) {
    for (const auto& octet : *numbers) {
      octets.push_back(static_cast<std::uint8_t>(asInteger(octet).value_or(0)));
    }
  }
  return "0x" + hexText(octets);
}

std::string bitsOf(const Json& value) {
  std::string out = "0b";
  if (const auto* bits = findArray(value, "bits")) {
    for (const auto& bit : *bits) out += bit == true ? '1' : '0';
  }
  return out;
}

std::string listOf(const Json::array_t* values) {
  std::string out;
  if (!values) return out;
  for (const auto& value : *values) {
    if (!out.empty()) out += ", ";
    out += valueText(value);
  }
  return out;
}

std::string floatOf(const Json& value, bool isSingle) {
  const auto number = findNumber(value, "value");
  if (!number) return "?";
  return isSingle ? shortest(static_cast<float>(*number)) : shortest(*number);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto octet = static_cast<unsigned char>(text[i]);
    // U+0080 to U+009F, which terminals may obey as well, are 0xC2 and one octet below 0xA0.
    const bool startsControl =
        octet == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    const bool isControl = octet < 0x20 || octet == 0x7F || startsControl;
    if (!isControl) {
      out += text[i];
      continue;
    }
    appendEscaped(out, octet);
    if (startsControl) appendEscaped(out, static_cast<unsigned char>(text[++i]));
  }
  return out;
}

std::string printableLines(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const auto line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (line.empty()) continue;
    if (!out.empty()) out += "\n  ";
    out += printable(line);
  }
  return out;
}

std::string valueText(const Json& value) {
  const auto* type = findString(value, "runtimeType");
  if (!type) return "?";
  if (*type == "boolean") {
    const auto isTrue = findBoolean(value, "value");
    return !isTrue ? "?" : *isTrue ? "true" : "false";
  }
  if (*type == "bitString") return bitsOf(value);
  if (*type == "octetString") return hexOf(value);
  if (*type == "visibleString") return '"' + textOf(value, "value") + '"';
  if (*type == "utcTime") return textOf(value, "value");
  if (*type == "float32") return floatOf(value, true);
  if (*type == "float64") return floatOf(value, false);
  if (*type == "structure") return "{" + listOf(findArray(value, "elements")) + "}";
  if (*type == "array") return "[" + listOf(findArray(value, "elements")) + "]";
  return integerOf(value, "value");
}

std::string gooseLine(const Json& message) {
  std::string line = textOf(message, "receivedAt");
  line += " appId=" + integerOf(message, "appId");
  if (findInteger(message, "vlanId")) line += " vlan=" + integerOf(message, "vlanId");
  line += " " + textOf(message, "goCBRef");
  line += " st=" + integerOf(message, "stNum") + " sq=" + integerOf(message, "sqNum");
  if (findBoolean(message, "test").value_or(false)) line += " TEST";
  if (findBoolean(message, "needsCommission").value_or(false)) line += " NDSCOM";
  return line + " values: " + listOf(findArray(message, "values"));
}

std::string svLine(const Json& event) {
  std::string line = textOf(event, "receivedAt");
  const auto* encoded = findString(event, "pduBase64");
  const auto payload = encoded ? decodeBase64(*encoded) : std::nullopt;
  const bool hasAppId = payload && payload->size() >= 2;
  line += " appId=" + (hasAppId ? std::to_string((*payload)[0] << 8 | (*payload)[1]) : "?");
  if (findInteger(event, "vlanId")) line += " vlan=" + integerOf(event, "vlanId");
  line += " " + textOf(event, "srcMac") + " to " + textOf(event, "dstMac");
  if (!payload) return line + " ?";
  const goosestack::ByteView octets = *payload;
  line += " " + std::to_string(octets.size()) + " octets: ";
  line += hexText(octets.first(std::min(octets.size(), kShownSvOctets)));
  return line + (octets.size() > kShownSvOctets ? "..." : "");
}

std::string interfaceLine(const Json& interface, std::string_view active) {
  const auto* name = findString(interface, "name");
  std::string line = name && *name == active ? "* " : "  ";
  line += textOf(interface, "name");
  if (line.size() < 18) line.resize(18, ' ');
  line += findBoolean(interface, "isUp").value_or(false) ? "up    " : "down  ";
  line += textOf(interface, "macAddress") + "  " + textOf(interface, "displayName");
  if (!findBoolean(interface, "supportsMulticast").value_or(true)) line += " (no multicast)";
  return line;
}

}  // namespace tarnlink
