#include "app/host/vlan_interface_helper.h"
#include "platform/process_capabilities.h"

namespace tarnlink {

std::unique_ptr<VlanSetup> VlanInterfaceHelper::forThisSystem() {
  return std::make_unique<VlanInterfaceHelper>(
      makeProcessRunner(), kLinuxVlanDialect,
      hasLinkSetupCapability() ? AdminRights::held : AdminRights::pkexec);
}

}  // namespace tarnlink
