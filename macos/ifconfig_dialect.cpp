#include "macos/ifconfig_dialect.h"

#include <charconv>
#include <regex>

#include "goosestack/utf8.h"

namespace tarnlink {
namespace {

std::vector<std::string> probe(const std::string& name) {
  return {"/bin/sh", "-c", "ifconfig " + name};
}

std::vector<std::string> readBack(const std::string& name) {
  return {"/sbin/ifconfig", name};
}

ExistingLink parseReadBack(std::string_view output) {
  static const std::regex kVlanLine(R"(vlan:\s*(\d+)\s+parent interface:\s*(\S+))");
  const auto* octets = reinterpret_cast<const std::uint8_t*>(output.data());
  std::match_results<std::string_view::const_iterator> match;
  if (!goosestack::isValidUtf8({octets, output.size()}) ||
      !std::regex_search(output.begin(), output.end(), match, kVlanLine)) {
    return {};
  }
  const auto digits = match.str(1);
  std::uint16_t vid = 0;
  const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), vid);
  if (read.ec != std::errc()) return {};
  return {.vlan = VlanInfo{vid, match.str(2)}, .keptBecause = {}, .lacks = {}};
}

std::string create(const std::string& name, const VlanInfo& link) {
  return "ifconfig " + name + " create; ifconfig " + name + " vlan " + std::to_string(link.vid) +
         " vlandev " + link.parent + "; ifconfig " + name + " up";
}

std::string destroy(const std::string& name) {
  return "ifconfig " + name + " destroy";
}

}  // namespace

const VlanDialect kBsdVlanDialect{probe, readBack, parseReadBack, create, nullptr, destroy, false};

}  // namespace tarnlink
