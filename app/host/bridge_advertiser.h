// Announces the running bridge on the local network, so that clients need no configuration.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "goosestack/log_sink.h"
#include "platform/dns_sd.h"
#include "server/service_advertiser.h"

namespace tarnlink {

/// The instance is named as users know the computer, else "Quillon"; it has no TXT record. Without
/// the system's DNS-SD service, or after a failure, the bridge just stays unannounced. The log gets
/// "[BridgeAdvertiser] Published NAME on port N" with the name that the network agreed to, or
/// "[BridgeAdvertiser] Failed to publish: {code: N, text: TEXT}" with the system's code and text.
/// start() and stop() are for one thread.
class BridgeAdvertiser final : public ServiceAdvertiser {
 public:
  /// Nothing is published yet.
  BridgeAdvertiser(std::int32_t port, goosestack::LogSink log)
      : port_(port), log_(std::move(log)) {}

  void start() override;
  void stop() override { netService_.reset(); }

 private:
  std::int32_t port_;
  goosestack::LogSink log_;
  std::unique_ptr<DnsSdPublication> netService_;
};

}  // namespace tarnlink
