#include "app/host/vlan_dialect.h"

#include <algorithm>
#include <limits>

#include "protocol/json_value.h"

namespace tarnlink {
namespace {

// Not by PATH: whoever could change that would get the rights that the tool is started with.
constexpr const char* kIp = "/sbin/ip";

// Tells the links that the bridge has made from those of others.
constexpr const char* kMark = "tarnlink";
constexpr int kHighestPriority = 7;  // IEEE 802.1Q: three bits.

std::vector<std::string> probe(const std::string& name) {
  return {kIp, "-json", "link", "show", "dev", name};
}

// "address" shows all that "link" shows, and the addresses. Links that lie on this one say so
// themselves.
std::vector<std::string> readBack(const std::string& name) {
  const std::string ip = kIp;
  return {"/bin/sh", "-c",
          ip + " -json -details address show dev " + name + "; " + ip + " -json link show"};
}

const JsonObject* object(const JsonObject* parent, std::string_view key) {
  const JsonValue* value = parent != nullptr ? parent->find(key) : nullptr;
  return value != nullptr ? value->as<JsonObject>() : nullptr;
}

bool hasText(const JsonObject* parent, std::string_view key, std::string_view text) {
  const std::string* value = parent != nullptr ? parent->string(key) : nullptr;
  return value != nullptr && *value == text;
}

bool isDown(const JsonObject& link) {
  const JsonArray* flags = link.array("flags");
  return flags != nullptr && std::none_of(flags->begin(), flags->end(), [](const JsonValue& flag) {
           const auto* text = flag.as<std::string>();
           return text != nullptr && *text == "UP";
         });
}

bool isMapped(const JsonArray& map, int priority) {
  return std::any_of(map.begin(), map.end(), [priority](const JsonValue& entry) {
    const auto* mapping = entry.as<JsonObject>();
    return mapping != nullptr && mapping->integer("from") == priority;
  });
}

// Mappings for the priorities that frames would lose. Those that are there may be somebody's wish.
std::string missingMap(const JsonObject* vlan) {
  const JsonArray* map = vlan != nullptr ? vlan->array("egress_qos") : nullptr;
  std::string missing;
  for (int priority = 1; priority <= kHighestPriority; ++priority) {
    if (map != nullptr && isMapped(*map, priority)) continue;
    const auto digit = std::to_string(priority);
    missing.append(" ").append(digit).append(":").append(digit);
  }
  return missing;
}

std::string lacks(const JsonObject& link, const JsonObject* vlan) {
  const auto map = missingMap(vlan);
  return (isDown(link) ? " up" : "") + (map.empty() ? "" : " type vlan egress-qos-map" + map);
}

// Someone else's link is never taken away from them. `all`: every link of the system.
std::string_view keptBecause(const JsonObject& link, bool isVlan, const JsonArray* all) {
  if (!isVlan) return "ein anderes Interface trägt diesen Namen";
  if (!hasText(&link, "ifalias", kMark)) return "das vorhandene Interface ist nicht von der Bridge";
  const JsonArray* addresses = link.array("addr_info");
  const std::string* name = link.string("ifname");
  if (addresses == nullptr || all == nullptr || name == nullptr) {
    return "die Verwendung des vorhandenen ist nicht lesbar";
  }
  if (!addresses->empty()) return "das vorhandene Interface trägt Adressen";
  const bool carriesLinks = std::any_of(all->begin(), all->end(), [&](const JsonValue& other) {
    return hasText(other.as<JsonObject>(), "link", *name);
  });
  if (carriesLinks || link.string("master") != nullptr) {
    return "auf dem vorhandenen Interface liegen andere";
  }
  return {};
}

ExistingLink parseReadBack(std::string_view output) {
  // The tool writes one array a line; the parser takes objects.
  const auto lineEnd = std::min(output.find('\n'), output.size());
  const auto document =
      parseJsonObject("{\"links\":" + std::string(output.substr(0, lineEnd)) + "}");
  const auto others = parseJsonObject("{\"links\":" + std::string(output.substr(lineEnd)) + "}");
  const JsonArray* links = document ? document->array("links") : nullptr;
  const auto* link =
      links != nullptr && links->size() == 1 ? links->front().as<JsonObject>() : nullptr;
  if (link == nullptr) {
    return {.vlan = {}, .keptBecause = "das vorhandene ist nicht lesbar", .lacks = {}};
  }

  const JsonObject* kind = object(link, "linkinfo");
  const JsonObject* data = object(kind, "info_data");
  const bool isVlan = hasText(kind, "info_kind", "vlan");
  const JsonArray* all = others ? others->array("links") : nullptr;
  ExistingLink existing{
      .vlan = {}, .keptBecause = keptBecause(*link, isVlan, all), .lacks = lacks(*link, data)};
  const std::string* parent = link->string("link");
  const auto vid = data != nullptr ? data->integer("id") : std::nullopt;
  // A service tag (802.1ad) is another EtherType: such a link does not carry this VLAN.
  if (isVlan && parent != nullptr && !hasText(data, "protocol", "802.1ad") && vid && *vid >= 0 &&
      *vid <= std::numeric_limits<std::uint16_t>::max()) {
    existing.vlan = VlanInfo{static_cast<std::uint16_t>(*vid), *parent};
  }
  return existing;
}

// Without the map every frame would leave with priority 0, whatever its socket asks for. Without
// addresses of its own the kernel sends nothing there. The steps after the first are for a link
// that is ours alone.
std::string create(const std::string& name, const VlanInfo& link) {
  const std::string ip = kIp;
  const std::string set = ip + " link set dev " + name;
  return ip + " link add link " + link.parent + " name " + name + " type vlan id " +
         std::to_string(link.vid) + " egress-qos-map 0:0 1:1 2:2 3:3 4:4 5:5 6:6 7:7 && { " + set +
         " alias " + kMark + "; " + set + " addrgenmode none; " + set + " up; }";
}

std::string complete(const std::string& name, const ExistingLink& link) {
  return std::string(kIp) + " link set dev " + name + link.lacks;
}

std::string destroy(const std::string& name) {
  return std::string(kIp) + " link delete dev " + name;
}

}  // namespace

const VlanDialect kLinuxVlanDialect{probe,    readBack, parseReadBack, create,
                                    complete, destroy,  true};

}  // namespace tarnlink
