#include "server/publications.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>
#include <functional>
#include <string_view>
#include <utility>

#include "goosestack/interface_name.h"
#include "protocol/error_code.h"
#include "protocol/shortened.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

using goosestack::GooseError;
using goosestack::GooseResult;

// The interface of a request that names none.
constexpr std::string_view kUnnamedInterface = "en0";

// What is thrown where descriptors, threads or memory run out becomes an error like any other.
template <class Service>
GooseResult<void> ensureMade(std::shared_ptr<Service>& service,
                             const std::function<std::shared_ptr<Service>()>& make) try {
  if (!service) service = make();
  return GooseResult<void>();
} catch (const std::exception& failure) {
  return GooseError::pcapOpenFailed(failure.what());
}

asio::awaitable<GooseResult<void>> orFailure(asio::awaitable<GooseResult<void>> task) {
  try {
    co_return co_await std::move(task);
  } catch (const std::exception& failure) {
    co_return GooseError::pcapOpenFailed(failure.what());
  }
}

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

CommandError failedGoose(const GooseError& error) {
  return CommandError::because(error.description(), ErrorCode::publishFailed, "Publish failed: ");
}

CommandError failedSv(const GooseError& error) {
  return CommandError::because(error.description(), ErrorCode::svPublishFailed,
                               "SV publish failed: ");
}

/// Into the interface on which it really leaves. False when it is no interface name.
bool resolve(std::string& interface, std::string activeInterface) {
  if (!goosestack::isValidInterfaceName(interface)) return false;
  const bool useActive = interface == kUnnamedInterface && !activeInterface.empty();
  if (useActive) interface = std::move(activeInterface);
  return true;
}

}  // namespace

asio::awaitable<Publications::Result> Publications::publishGoose(
    goosestack::GoosePublishConfig config, std::string activeInterface) {
  const auto made = ensureMade(goose_, ports_.makeGoosePublisher);
  if (!made) co_return failedGoose(made.error());
  if (!resolve(config.interface, std::move(activeInterface)))
    co_return invalidInterfaceName(config.interface);
  const auto publisher = goose_;
  if (config.vlanId == 0) {
    log("publish: using interface " + config.interface + " (no VLAN)");
  } else {
    const auto moved = co_await moveToVlanInterface(config);
    if (!moved) {
      co_return CommandError::because(moved.error().description, ErrorCode::vlanSetupFailed,
                                      "VLAN-Setup fehlgeschlagen: ");
    }
    if (!vlanSetup_ || publisher != goose_) co_return Result();
  }
  const std::string subject =
      "appId=" + std::to_string(config.appId) + " goCBRef=" + shortened(config.goCBRef);
  const auto published = co_await orFailure(publisher->publishStateChange(std::move(config)));
  if (!published) co_return failedGoose(published.error());
  ++goosePublished_;
  log("✓ published GOOSE " + subject);
  co_return Result();
}

asio::awaitable<VlanResult<void>> Publications::moveToVlanInterface(
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
  log("publish: vlan " + std::to_string(config.vlanId) + " via " + *link + " (parent " + parent +
      ")");
  // The operating system adds the tag: the frames leave here without one.
  config.interface = *link;
  config.vlanId = 0;
  config.vlanCfi = false;
  config.vlanTagged = false;
  co_return VlanResult<void>();
}

asio::awaitable<void> Publications::unpublishGoose(std::optional<std::string> goCBRef) {
  const auto publisher = goose_;
  if (!publisher) co_return;
  const std::string subject = shortened(goCBRef.value_or("(all)"));
  co_await publisher->unpublish(std::move(goCBRef));
  log("✓ unpublished GOOSE " + subject);
}

asio::awaitable<Publications::Result> Publications::publishSv(goosestack::Bytes pdu,
                                                              goosestack::SvPublishConfig config,
                                                              std::string activeInterface) {
  const auto made = ensureMade(sv_, ports_.makeSvPublisher);
  if (!made) co_return failedSv(made.error());
  if (!resolve(config.interface, std::move(activeInterface)))
    co_return invalidInterfaceName(config.interface);
  const auto publisher = sv_;
  const auto published =
      co_await orFailure(publisher->publishApdu(std::move(pdu), std::move(config)));
  if (!published) co_return failedSv(published.error());
  ++svPublished_;
  co_return Result();
}

void Publications::cancelLinks() {
  if (const auto setup = std::exchange(vlanSetup_, nullptr)) setup->cancel();
}

asio::awaitable<void> Publications::stopGoose() {
  if (const auto publisher = std::exchange(goose_, nullptr)) co_await publisher->stop();
}

asio::awaitable<void> Publications::stopSv() {
  if (const auto publisher = std::exchange(sv_, nullptr)) co_await publisher->stop();
}

}  // namespace tarnlink
