#include "app/host/in_process_bridge.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <utility>

#include "server/pairing_code.h"

namespace tarnlink {
namespace asio = boost::asio;
namespace {

constexpr std::chrono::seconds kStopTime{3};

asio::awaitable<void> startServer(std::shared_ptr<BridgeServer> server, std::uint16_t port,
                                  Bridge::StateHandler handler) {
  const auto started = co_await server->start(port);
  BridgeState state{started.has_value(), {}};
  if (!started) state.failure = started.error().description();
  handler(state);
}

asio::awaitable<void> stopServer(std::shared_ptr<BridgeServer> server) {
  co_await server->stop();
}

asio::awaitable<void> switchServer(std::shared_ptr<BridgeServer> server, std::string name,
                                   std::function<void()> done) {
  co_await server->setActiveInterface(std::move(name));
  done();
}

}  // namespace

InProcessBridge::InProcessBridge(asio::any_io_executor executor,
                                 std::shared_ptr<BridgeServer> server, PreferenceStore& preferences)
    : executor_(std::move(executor)), server_(std::move(server)), preferences_(preferences) {}

void InProcessBridge::start(std::uint16_t port, StateHandler handler) {
  asio::co_spawn(executor_, startServer(server_, port, std::move(handler)), asio::detached);
}

void InProcessBridge::stop() {
  asio::co_spawn(executor_, stopServer(server_), asio::use_future).wait_for(kStopTime);
}

std::string InProcessBridge::pairingCode() {
  return tarnlink::pairingCode(preferences_);
}

std::string InProcessBridge::activeInterface() {
  return BridgeServer::sharedActiveInterface();
}

void InProcessBridge::setActiveInterface(std::string name, std::function<void()> done) {
  asio::co_spawn(executor_, switchServer(server_, std::move(name), std::move(done)),
                 asio::detached);
}

}  // namespace tarnlink
