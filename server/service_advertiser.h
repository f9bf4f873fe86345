// What the server asks of whoever announces it on the network.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace tarnlink {

/// Calls come from the server's actor; stop() may hold it for a fraction of a second.
class ServiceAdvertiser {
 public:
  virtual ~ServiceAdvertiser() = default;
  virtual void start() = 0;
  virtual void stop() = 0;
};

/// Makes an advertiser for a TCP port; empty where the bridge is not to be announced.
using AdvertiserFactory = std::function<std::unique_ptr<ServiceAdvertiser>(std::int32_t port)>;

}  // namespace tarnlink
