// How a system's interface tool is spoken to about VLAN links: one table a system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlink {

/// What the system says of a VLAN link (IEEE 802.1Q).
struct VlanInfo {
  std::uint16_t vid = 0;
  std::string parent;

  bool operator==(const VlanInfo&) const = default;
};

/// What the system says of a link that has the name of a VLAN link.
struct ExistingLink {
  std::optional<VlanInfo> vlan;  ///< Nothing where it is not, or not readably, a VLAN link.
  std::string_view keptBecause;  ///< Why it must not be removed, in German; empty: it may be.
  /// What the link lacks to carry a publication, as the tool takes it (down, or frames would leave
  /// without their priority); empty: nothing.
  std::string lacks;

  bool operator==(const ExistingLink&) const = default;
};

/// Plain functions: safe from any thread. Names must have passed isValidInterfaceName(), for the
/// command lines take them unquoted.
struct VlanDialect {
  /// A command whose exit status is 0 where a link of that name exists.
  std::vector<std::string> (*probe)(const std::string& name);
  /// A command whose output describes the link.
  std::vector<std::string> (*readBack)(const std::string& name);
  ExistingLink (*parseReadBack)(std::string_view output);

  /// Shell command lines that need administrator rights. In the first, once the link is made, a
  /// failing step does not stop the later ones. `complete` gives a link what it lacks; null where
  /// none ever does.
  std::string (*create)(const std::string& name, const VlanInfo& link);
  std::string (*complete)(const std::string& name, const ExistingLink& link);
  std::string (*destroy)(const std::string& name);

  /// Whether `probe` tells of the parent, too, before anybody is asked for rights.
  bool probesParent;
};

/// `ip` of iproute2.
extern const VlanDialect kLinuxVlanDialect;

}  // namespace tarnlink
