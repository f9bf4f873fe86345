// GOOSE publishing requests.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <optional>
#include <string>
#include <utility>

#include "server/bridge_server.h"
#include "server/error_code.h"
#include "stack/interface_name.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

// The interface of a request that names none.
constexpr std::string_view kUnnamedInterface = "en0";

asio::awaitable<std::optional<std::string>> readyVlan(std::shared_ptr<VlanSetup> setup,
                                                      std::string parent, std::uint16_t vid) {
  co_return setup->readyVlanInterface(parent, vid);
}

asio::awaitable<VlanResult<std::string>> ensureVlan(std::shared_ptr<VlanSetup> setup,
                                                    std::string parent, std::uint16_t vid) {
  co_return setup->ensureVlanInterface(parent, vid);
}

}  // namespace

std::string BridgeServer::outgoingInterface(const std::string& requested) const {
  const bool useActive = requested == kUnnamedInterface && !activeInterface_.empty();
  return useActive ? activeInterface_ : requested;
}

asio::awaitable<void> BridgeServer::handlePublishGoose(GoosePublishConfig config,
                                                       ClientId clientId) {
  if (!goosePublisher_) goosePublisher_ = ports_.makeGoosePublisher();
  const auto publisher = goosePublisher_;
  if (!isValidInterfaceName(config.interface)) {
    sendError("Invalid interface name", ErrorCode::invalidInterfaceName, clientId);
    co_return;
  }
  config.interface = outgoingInterface(config.interface);
  if (config.vlanId == 0) {
    log("[BridgeServer] publish: using interface " + config.interface + " (no VLAN)");
  } else if (!co_await moveToVlanInterface(config, clientId)) {
    co_return;
  }
  if (isStopping_) co_return;
  const std::string subject =
      "appId=" + std::to_string(config.appId) + " goCBRef=" + config.goCBRef;
  const auto published = co_await publisher->publishStateChange(std::move(config));
  if (!published) {
    sendError("Publish failed: " + published.error().description(), ErrorCode::publishFailed,
              clientId);
    co_return;
  }
  ++messagesPublished_;
  log("[BridgeServer] ✓ published GOOSE " + subject);
  sendStatus(clientId);
}

asio::awaitable<bool> BridgeServer::moveToVlanInterface(GoosePublishConfig& config,
                                                        ClientId clientId) {
  const std::string parent = config.interface;
  if (!vlanSetup_) vlanSetup_ = ports_.makeVlanSetup();
  const auto setup = vlanSetup_;
  // Beside the host executor: what is there already waits for no prompt of another client.
  auto link = co_await asio::co_spawn(ports_.blockingExecutor,
                                      readyVlan(setup, parent, config.vlanId), asio::use_awaitable);
  if (!link) {
    auto made = co_await asio::co_spawn(
        ports_.hostExecutor, ensureVlan(setup, parent, config.vlanId), asio::use_awaitable);
    if (!made) {
      sendError("VLAN-Setup fehlgeschlagen: " + made.error().description,
                ErrorCode::vlanSetupFailed, clientId);
      co_return false;
    }
    link = std::move(*made);
  }
  log("[BridgeServer] publish: vlan " + std::to_string(config.vlanId) + " via " + *link +
      " (parent " + parent + ")");
  // The operating system adds the tag: the frames leave here without one.
  config.interface = *link;
  config.vlanId = 0;
  config.vlanCfi = false;
  config.vlanTagged = false;
  co_return true;
}

asio::awaitable<void> BridgeServer::handleUnpublishGoose(std::optional<std::string> goCBRef,
                                                         ClientId clientId) {
  if (const auto publisher = goosePublisher_) {
    const std::string subject = goCBRef.value_or("(all)");
    co_await publisher->unpublish(std::move(goCBRef));
    log("[BridgeServer] ✓ unpublished GOOSE " + subject);
  }
  sendStatus(clientId);
}

}  // namespace tarnlink
