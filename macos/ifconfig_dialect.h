// How macOS's `ifconfig` is spoken to about VLAN links.
#pragma once

#include "app/host/vlan_dialect.h"

namespace tarnlink {

extern const VlanDialect kBsdVlanDialect;

}  // namespace tarnlink
