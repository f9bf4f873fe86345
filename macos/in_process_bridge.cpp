#include "macos/in_process_bridge.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <utility>

namespace tarnlink {
namespace asio = boost::asio;
namespace {

constexpr std::chrono::seconds kStopTime{3};

// Free functions, not lambdas: a coroutine's parameters live as long as it does, captures do not.
asio::awaitable<void> startServer(std::shared_ptr<BridgeServer> server, std::uint16_t port,
                                  std::function<void(const BridgeResult<void>&)> started) {
  started(co_await server->start(port));
}

asio::awaitable<void> stopServer(std::shared_ptr<BridgeServer> server) {
  co_await server->stop();
}

asio::awaitable<void> switchServer(std::shared_ptr<BridgeServer> server, std::string name,
                                   std::function<void()> switched) {
  co_await server->setActiveInterface(std::move(name));
  switched();
}

}  // namespace

void InProcessBridge::start(std::uint16_t port,
                            std::function<void(const BridgeResult<void>&)> started) {
  asio::co_spawn(executor_, startServer(server_, port, std::move(started)), asio::detached);
}

void InProcessBridge::stop() {
  asio::co_spawn(executor_, stopServer(server_), asio::use_future).wait_for(kStopTime);
}

void InProcessBridge::setActiveInterface(std::string name, std::function<void()> switched) {
  asio::co_spawn(executor_, switchServer(server_, std::move(name), std::move(switched)),
                 asio::detached);
}

}  // namespace tarnlink
