// GOOSE publishing requests.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <optional>
#include <string>
#include <utility>

#include "goosestack/interface_name.h"
#include "protocol/error_code.h"
#include "protocol/shortened.h"
#include "server/bridge_server.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

// The interface of a request that names none.
constexpr std::string_view kUnnamedInterface = "en0";

asio::awaitable<std::optional<std::string>> readyVlan(std::shared_ptr<VlanSetup> setup,
                                                      std::string parent, std::uint16_t vid) {
  try {
    co_return setup->readyVlanInterface(parent, vid);
  } catch (const std::exception&) {
    co_return std::nullopt;  // The other call says why.
  }
}

asio::awaitable<VlanResult<std::string>> ensureVlan(std::shared_ptr<VlanSetup> setup,
                                                    std::string parent, std::uint16_t vid) {
  try {
    co_return setup->ensureVlanInterface(parent, vid);
  } catch (const std::exception& failure) {
    co_return VlanError{0, failure.what()};
  }
}

CommandError failedPublication(const goosestack::GooseError& error) {
  return CommandError::because(error.description(), ErrorCode::publishFailed, "Publish failed: ");
}

}  // namespace

std::string BridgeServer::outgoingInterface(const std::string& requested) const {
  const bool useActive = requested == kUnnamedInterface && !activeInterface_.empty();
  return useActive ? activeInterface_ : requested;
}

asio::awaitable<Reply> BridgeServer::handlePublishGoose(goosestack::GoosePublishConfig config) {
  const auto made = ensureMade(goosePublisher_, ports_.makeGoosePublisher);
  if (!made) co_return failedPublication(made.error());
  if (!goosestack::isValidInterfaceName(config.interface))
    co_return invalidInterfaceName(config.interface);
  config.interface = outgoingInterface(config.interface);
  const auto publisher = goosePublisher_;
  if (config.vlanId == 0) {
    log("[BridgeServer] publish: using interface " + config.interface + " (no VLAN)");
  } else {
    const auto moved = co_await moveToVlanInterface(config);
    if (!moved) {
      co_return CommandError::because(moved.error().description, ErrorCode::vlanSetupFailed,
                                      "VLAN-Setup fehlgeschlagen: ");
    }
  }
  if (isStopping_) co_return std::string();
  const std::string subject =
      "appId=" + std::to_string(config.appId) + " goCBRef=" + shortened(config.goCBRef);
  const auto published = co_await orFailure(publisher->publishStateChange(std::move(config)));
  if (!published) co_return failedPublication(published.error());
  ++messagesPublished_;
  log("[BridgeServer] ✓ published GOOSE " + subject);
  co_return statusEvent();
}

asio::awaitable<VlanResult<void>> BridgeServer::moveToVlanInterface(
    goosestack::GoosePublishConfig& config) {
  const std::string parent = config.interface;
  const auto made = ensureMade(vlanSetup_, ports_.makeVlanSetup);
  if (!made) co_return VlanError{0, made.error().description()};
  const auto setup = vlanSetup_;
  // Beside the host executor: what is there already waits for no prompt of another client.
  auto link = co_await asio::co_spawn(ports_.blockingExecutor,
                                      readyVlan(setup, parent, config.vlanId), asio::use_awaitable);
  if (!link) {
    auto ensured = co_await asio::co_spawn(
        ports_.hostExecutor, ensureVlan(setup, parent, config.vlanId), asio::use_awaitable);
    if (!ensured) co_return ensured.error();
    link = std::move(*ensured);
  }
  log("[BridgeServer] publish: vlan " + std::to_string(config.vlanId) + " via " + *link +
      " (parent " + parent + ")");
  // The operating system adds the tag: the frames leave here without one.
  config.interface = *link;
  config.vlanId = 0;
  config.vlanCfi = false;
  config.vlanTagged = false;
  co_return VlanResult<void>();
}

asio::awaitable<Reply> BridgeServer::handleUnpublishGoose(std::optional<std::string> goCBRef) {
  if (const auto publisher = goosePublisher_) {
    const std::string subject = shortened(goCBRef.value_or("(all)"));
    co_await publisher->unpublish(std::move(goCBRef));
    log("[BridgeServer] ✓ unpublished GOOSE " + subject);
  }
  co_return statusEvent();
}

}  // namespace tarnlink
