#include "app/host/bridge_advertiser.h"

#include <string>
#include <utility>

#include "platform/host_name.h"

namespace tarnlink {
namespace {

constexpr const char* kNamelessHost = "Quillon";

std::string instanceName() {
  return userVisibleHostName().value_or(kNamelessHost);
}

}  // namespace

BridgeAdvertiser::BridgeAdvertiser(std::int32_t port, goosestack::LogSink log)
    : port_(port), log_(std::move(log)) {}

void BridgeAdvertiser::start() {
  netService_.reset();  // Else the new one would find its name taken.
  netService_ = publishDnsSdService(instanceName, kBridgeServiceType, port_, *this);
}

void BridgeAdvertiser::stop() {
  if (netService_) netService_->stop();
  netService_.reset();
}

void BridgeAdvertiser::netServiceDidPublish(const DnsSdService& service) {
  log_("[BridgeAdvertiser] Published " + service.name + " on port " + std::to_string(service.port));
}

void BridgeAdvertiser::netService(const DnsSdService&, const DnsSdError& didNotPublish) {
  log_("[BridgeAdvertiser] Failed to publish: {code: " + std::to_string(didNotPublish.code) +
       ", text: " + didNotPublish.text + "}");
}

}  // namespace tarnlink
