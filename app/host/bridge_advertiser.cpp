#include "app/host/bridge_advertiser.h"

#include <string>

#include "platform/host_name.h"
#include "protocol/bridge_service.h"

namespace tarnlink {
namespace {

constexpr const char* kNamelessHost = "Quillon";

std::string instanceName() {
  return userVisibleHostName().value_or(kNamelessHost);
}

}  // namespace

void BridgeAdvertiser::start() {
  netService_.reset();  // Else the new one would find its name taken.
  netService_ = publishDnsSdService(
      instanceName, kBridgeServiceType, static_cast<std::uint16_t>(port_),
      [log = log_, port = std::to_string(port_)](const DnsSdOutcome& outcome) {
        if (outcome) return log("[BridgeAdvertiser] Published " + *outcome + " on port " + port);
        log("[BridgeAdvertiser] Failed to publish: {code: " + std::to_string(outcome.error().code) +
            ", text: " + outcome.error().text + "}");
      });
}

}  // namespace tarnlink
