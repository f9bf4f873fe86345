#include "app/host/vlan_dialect.h"

#include <algorithm>
#include <limits>

#include "protocol/json.h"

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

const Json* member(const Json* parent, std::string_view key) {
  return parent != nullptr ? findMember(*parent, key) : nullptr;
}

bool hasText(const Json* parent, std::string_view key, std::string_view text) {
  const std::string* value = parent != nullptr ? findString(*parent, key) : nullptr;
  return value != nullptr && *value == text;
}

bool isDown(const Json& link) {
  const auto* flags = findArray(link, "flags");
  return flags != nullptr &&
         std::none_of(flags->begin(), flags->end(), [](const Json& flag) { return flag == "UP"; });
}

bool isMapped(const Json::array_t& map, int priority) {
  return std::any_of(map.begin(), map.end(), [priority](const Json& entry) {
    return findInteger(entry, "from") == priority;
  });
}

// Mappings for the priorities that frames would lose. Those that are there may be somebody's wish.
std::string missingMap(const Json* vlan) {
  const auto* map = vlan != nullptr ? findArray(*vlan, "egress_qos") : nullptr;
  std::string missing;
  for (int priority = 1; priority <= kHighestPriority; ++priority) {
    if (map != nullptr && isMapped(*map, priority)) continue;
    const auto digit = std::to_string(priority);
    missing.append(" ").append(digit).append(":").append(digit);
  }
  return missing;
}

std::string lacks(const Json& link, const Json* vlan) {
  const auto map = missingMap(vlan);
  return (isDown(link) ? " up" : "") + (map.empty() ? "" : " type vlan egress-qos-map" + map);
}

// Someone else's link is never taken away from them. `all`: every link of the system.
std::string_view keptBecause(const Json& link, bool isVlan, const Json::array_t* all) {
  if (!isVlan) return "ein anderes Interface trägt diesen Namen";
  if (!hasText(&link, "ifalias", kMark)) return "das vorhandene Interface ist nicht von der Bridge";
  const auto* addresses = findArray(link, "addr_info");
  const std::string* name = findString(link, "ifname");
  if (addresses == nullptr || all == nullptr || name == nullptr) {
    return "die Verwendung des vorhandenen ist nicht lesbar";
  }
  if (!addresses->empty()) return "das vorhandene Interface trägt Adressen";
  const bool carriesLinks = std::any_of(
      all->begin(), all->end(), [&](const Json& other) { return hasText(&other, "link", *name); });
  if (carriesLinks || findString(link, "master") != nullptr) {
    return "auf dem vorhandenen Interface liegen andere";
  }
  return {};
}

ExistingLink parseReadBack(std::string_view output) {
  // The tool writes one array a line.
  const auto lineEnd = std::min(output.find('\n'), output.size());
  const auto document = parseJson(output.substr(0, lineEnd));
  const auto others = parseJson(output.substr(lineEnd));
  const bool isOne = document && document->is_array() && document->size() == 1;
  const Json* link = isOne && document->front().is_object() ? &document->front() : nullptr;
  if (link == nullptr) {
    return {.vlan = {}, .keptBecause = "das vorhandene ist nicht lesbar", .lacks = {}};
  }

  const Json* kind = member(link, "linkinfo");
  const Json* data = member(kind, "info_data");
  const bool isVlan = hasText(kind, "info_kind", "vlan");
  const auto* all = others ? others->get_ptr<const Json::array_t*>() : nullptr;
  ExistingLink existing{
      .vlan = {}, .keptBecause = keptBecause(*link, isVlan, all), .lacks = lacks(*link, data)};
  const std::string* parent = findString(*link, "link");
  const auto vid = data != nullptr ? findInteger(*data, "id") : std::nullopt;
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
