#include "app/host/vlan_dialect.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <regex>

#include "server/json_value.h"
#include "stack/utf8.h"

namespace tarnlink {
namespace {

std::optional<std::uint16_t> vlanId(std::string_view digits) {
  std::uint16_t vid = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), vid);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return vid;
}

namespace bsd {

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
  if (!isValidUtf8({octets, output.size()}) ||
      !std::regex_search(output.begin(), output.end(), match, kVlanLine)) {
    return {};
  }
  const auto vid = vlanId(match.str(1));
  if (!vid) return {};
  return {.vlan = VlanInfo{*vid, match.str(2)}, .keptBecause = {}};
}

std::string create(const std::string& name, const VlanInfo& link) {
  return "ifconfig " + name + " create; ifconfig " + name + " vlan " + std::to_string(link.vid) +
         " vlandev " + link.parent + "; ifconfig " + name + " up";
}

std::string destroy(const std::string& name) {
  return "ifconfig " + name + " destroy";
}

}  // namespace bsd

namespace iproute {

// Not by PATH: whoever could change that would get the rights that the tool is started with.
constexpr const char* kIp = "/sbin/ip";

std::vector<std::string> probe(const std::string& name) {
  return {kIp, "-json", "link", "show", "dev", name};
}

// "address" shows all that "link" shows, and the addresses.
std::vector<std::string> readBack(const std::string& name) {
  return {kIp, "-json", "-details", "address", "show", "dev", name};
}

const JsonObject* object(const JsonObject* parent, std::string_view key) {
  const JsonValue* value = parent != nullptr ? parent->find(key) : nullptr;
  return value != nullptr ? value->as<JsonObject>() : nullptr;
}

bool hasText(const JsonObject* parent, std::string_view key, std::string_view text) {
  const std::string* value = parent != nullptr ? parent->string(key) : nullptr;
  return value != nullptr && *value == text;
}

// The kernel gives every link that is up an IPv6 link-local address (RFC 4862, section 5.3), which
// says nothing about use.
bool isConfiguredAddress(const JsonValue& entry) {
  const auto* address = entry.as<JsonObject>();
  return !(hasText(address, "family", "inet6") && hasText(address, "scope", "link"));
}

// Someone else's link is never taken away from them.
std::string_view keptBecause(const JsonObject& link, bool isVlan) {
  if (!isVlan) return "ein anderes Interface trägt diesen Namen";
  const JsonArray* addresses = link.array("addr_info");
  if (addresses == nullptr) return "seine Adressen sind nicht lesbar";
  if (std::any_of(addresses->begin(), addresses->end(), isConfiguredAddress)) {
    return "das vorhandene Interface trägt Adressen";
  }
  if (link.string("master") != nullptr) return "das vorhandene Interface gehört zu einem anderen";
  return {};
}

ExistingLink parseReadBack(std::string_view output) {
  // The tool writes an array of one link; the parser takes objects.
  const auto document = parseJsonObject("{\"links\":" + std::string(output) + "}");
  const JsonArray* links = document ? document->array("links") : nullptr;
  const auto* link =
      links != nullptr && links->size() == 1 ? links->front().as<JsonObject>() : nullptr;
  if (link == nullptr) return {.vlan = {}, .keptBecause = "das vorhandene ist nicht lesbar"};

  const JsonObject* kind = object(link, "linkinfo");
  const JsonObject* data = object(kind, "info_data");
  const bool isVlan = hasText(kind, "info_kind", "vlan");
  ExistingLink existing{.vlan = {}, .keptBecause = keptBecause(*link, isVlan)};
  const std::string* parent = link->string("link");
  const auto vid = data != nullptr ? data->integer("id") : std::nullopt;
  // A service tag (802.1ad) is another EtherType: such a link does not carry this VLAN.
  if (isVlan && parent != nullptr && !hasText(data, "protocol", "802.1ad") && vid && *vid >= 0 &&
      *vid <= std::numeric_limits<std::uint16_t>::max()) {
    existing.vlan = VlanInfo{static_cast<std::uint16_t>(*vid), *parent};
  }
  return existing;
}

// Without the map every frame would leave with priority 0, whatever its socket asks for.
std::string create(const std::string& name, const VlanInfo& link) {
  const std::string ip = kIp;
  return ip + " link add link " + link.parent + " name " + name + " type vlan id " +
         std::to_string(link.vid) + " egress-qos-map 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7; " + ip +
         " link set dev " + name + " up";
}

std::string destroy(const std::string& name) {
  return std::string(kIp) + " link delete dev " + name;
}

}  // namespace iproute
}  // namespace

const VlanDialect kLinuxVlanDialect{iproute::probe, iproute::readBack, iproute::parseReadBack,
                                    iproute::create, iproute::destroy};
const VlanDialect kBsdVlanDialect{bsd::probe, bsd::readBack, bsd::parseReadBack, bsd::create,
                                  bsd::destroy};

}  // namespace tarnlink
