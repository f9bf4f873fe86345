// Ours: the WebSocket transport and its connections as they ship, fed the way the bridge's actor
// feeds them, and with a receive() under way on each connection as there.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <utility>

#include "bench/burst_server.h"
#include "websocket/websocket.h"

namespace tarnlink::bench {
namespace {

namespace asio = boost::asio;

using Connection = std::shared_ptr<WebSocketConnection>;

asio::awaitable<void> receiveAll(Connection connection) {
  while (true) {
    const auto message = co_await connection->receive();
    if (!message) co_return;
  }
}

class TransportServer final : public BurstServer {
 public:
  TransportServer(std::uint16_t port, const Frames& frames)
      : frames_(frames),
        transport_(makeWebSocketTransport(io_.get_executor())),
        listener_(transport_->makeListener(port).value()) {
    listener_->start([](const TransportState&) {},
                     [this](Connection connection) { accept(std::move(connection)); });
    io_.poll();  // Listens from now on.
    thread_ = std::thread([this] { io_.run(); });
  }
  ~TransportServer() override {
    io_.stop();
    thread_.join();
  }

  void feed(std::size_t frames) override {
    asio::post(strand_, [this, frames] {
      for (const auto& connection : connections_) {
        burst_.assign(frames_.begin(), frames_.begin() + static_cast<std::ptrdiff_t>(frames));
        connection->sendBurst(burst_);
      }
    });
  }

 private:
  void accept(Connection connection) {
    connection->start(
        [this, connection](const TransportState& state) {
          if (!std::holds_alternative<TransportReady>(state)) return;
          connection->setStanding(Standing::admitted);
          asio::co_spawn(strand_, receiveAll(connection), asio::detached);
          asio::post(strand_, [this, connection] { connections_.push_back(connection); });
        },
        [](const boost::system::error_code&) {});
  }

  const Frames& frames_;
  asio::io_context io_{1};
  asio::strand<asio::any_io_executor> strand_ =
      asio::make_strand(asio::any_io_executor(io_.get_executor()));
  std::unique_ptr<WebSocketTransport> transport_;
  std::shared_ptr<WebSocketListener> listener_;
  std::vector<Connection> connections_;
  Frames burst_;
};

}  // namespace

std::unique_ptr<BurstServer> makeTransportServer(std::uint16_t port, const Frames& frames,
                                                 std::size_t) {
  return std::make_unique<TransportServer>(port, frames);
}

}  // namespace tarnlink::bench
