// What clients publish: GOOSE, where need be on a VLAN link that is made for it, and Sampled
// Values.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/system/result.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "goosestack/publishing.h"
#include "server/bridge_ports.h"
#include "server/reply.h"
#include "server/vlan_setup.h"

namespace tarnlink {

/// A part of an actor: all calls on its strand. A request that names no interface goes out on the
/// active one.
class Publications {
 public:
  using Result = boost::system::result<void, CommandError>;

  /// The ports live longer.
  explicit Publications(const BridgePorts& ports) : ports_(ports) {}

  /// Does nothing, successfully, when cancelLinks() has been called meanwhile.
  boost::asio::awaitable<Result> publishGoose(goosestack::GoosePublishConfig config,
                                              std::string activeInterface);
  /// Nothing given: all of them.
  boost::asio::awaitable<void> unpublishGoose(std::optional<std::string> goCBRef);
  boost::asio::awaitable<Result> publishSv(goosestack::Bytes pdu,
                                           goosestack::SvPublishConfig config,
                                           std::string activeInterface);

  /// Ends a set-up of VLAN links that waits for tools or people.
  void cancelLinks();
  boost::asio::awaitable<void> stopGoose();
  boost::asio::awaitable<void> stopSv();

  std::int64_t goosePublished() const { return goosePublished_; }
  std::int64_t svPublished() const { return svPublished_; }

 private:
  boost::asio::awaitable<VlanResult<void>> moveToVlanInterface(
      goosestack::GoosePublishConfig& config);
  void log(const std::string& line) const { ports_.log("[BridgeServer] " + line); }

  const BridgePorts& ports_;
  std::shared_ptr<goosestack::GoosePublishing> goose_;
  std::shared_ptr<goosestack::SvPublishing> sv_;
  std::shared_ptr<VlanSetup> vlanSetup_;  // From the first VLAN publication to cancelLinks().
  std::int64_t goosePublished_ = 0;
  std::int64_t svPublished_ = 0;
};

}  // namespace tarnlink
