#include <chrono>

#include "app/host/vlan_interface_helper.h"
#include "platform/process_capabilities.h"

namespace tarnlink {
namespace {

// For each tool, and so for each prompt: time to find somebody with the password.
constexpr std::chrono::minutes kTimeLimit{2};

}  // namespace

std::unique_ptr<VlanSetup> VlanInterfaceHelper::forThisSystem() {
  return std::make_unique<VlanInterfaceHelper>(
      makeProcessRunner(kTimeLimit), kLinuxVlanDialect,
      hasLinkSetupCapability() ? kRightsHeld : kPkexecPrompt);
}

}  // namespace tarnlink
