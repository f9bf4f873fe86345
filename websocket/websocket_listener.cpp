// Listening sockets of the WebSocket transport.
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <list>
#include <optional>
#include <utility>

#include "websocket/client_places.h"
#include "websocket/session.h"
#include "websocket/websocket.h"

namespace tarnlink {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using boost::system::errc::errc_t;

constexpr auto kWait = asio::as_tuple(asio::use_awaitable);

// Connections beyond the allowed number that wait for their refusal, at a time; each costs a
// descriptor until then. Further ones are closed at once.
constexpr long kMaxRefusals = 32;

// After these the acceptor itself is of no use any more; everything else accept(2) reports passes.
bool isFatalToAcceptor(const error_code& error) {
  return error == asio::error::operation_aborted || error == asio::error::bad_descriptor ||
         error == asio::error::invalid_argument || error == asio::error::not_socket ||
         error == asio::error::operation_not_supported;
}

// The machine has no IPv6, or it is switched off.
bool meansNoIpv6(const error_code& error) {
  return error == asio::error::address_family_not_supported ||
         error == errc_t::address_not_available;
}

/// Lives as long as its coroutines. The port's members may be called on any thread, all else runs
/// on its strand.
class Listener final : public WebSocketListener, public std::enable_shared_from_this<Listener> {
 public:
  Listener(const asio::any_io_executor& executor, std::uint16_t port, const WebSocketLimits& limits,
           std::shared_ptr<const WebSocketAccess> access)
      : executor_(executor),
        strand_(asio::make_strand(executor)),
        port_(port),
        limits_(limits),
        access_(std::move(access)),
        clients_(access_->maxClients) {}

  void start(StateHandler onState, ConnectionHandler onConnection) override {
    asio::post(strand_, [self = shared_from_this(), onState = std::move(onState),
                         onConnection = std::move(onConnection)]() mutable {
      self->begin(std::move(onState), std::move(onConnection));
    });
  }

  void cancel() override {
    asio::post(strand_, [self = shared_from_this()] { self->end(TransportCancelled{}); });
  }

  /// The owner is gone.
  void abandon() {
    asio::post(strand_, [self = shared_from_this()] {
      self->forgetHandlers();
      self->end(TransportCancelled{});
    });
  }

 private:
  void begin(StateHandler onState, ConnectionHandler onConnection) {
    onState_ = std::move(onState);
    onConnection_ = std::move(onConnection);
    if (ended_) return report(TransportCancelled{});
    if (const auto error = listen()) return end(TransportFailed{error});
    for (auto& acceptor : acceptors_) {
      asio::co_spawn(strand_, accept(shared_from_this(), acceptor), asio::detached);
    }
    report(TransportReady{});
  }

  void end(const TransportState& state) {
    if (std::exchange(ended_, true)) return;
    error_code ignored;
    for (auto& acceptor : acceptors_) acceptor.close(ignored);
    report(state);
  }

  void forgetHandlers() {
    onState_ = nullptr;
    onConnection_ = nullptr;
  }

  error_code listen() {
    for (const auto& address : access_->addresses) {
      if (const auto error = listenOn(tcp::endpoint(address, port_))) return error;
    }
    if (!access_->addresses.empty()) return {};
    const auto error6 = listenOn(tcp::endpoint(tcp::v6(), port_));
    if (error6 && !meansNoIpv6(error6)) return error6;
    return listenOn(tcp::endpoint(tcp::v4(), port_));
  }

  error_code listenOn(const tcp::endpoint& endpoint) {
    tcp::acceptor acceptor(strand_);
    error_code error;
    acceptor.open(endpoint.protocol(), error);
    if (!error) acceptor.set_option(asio::socket_base::reuse_address(true), error);
    // Each family has its own socket, whatever the system's default for mapped addresses is.
    if (!error && endpoint.protocol() == tcp::v6()) {
      acceptor.set_option(asio::ip::v6_only(true), error);
    }
    if (!error) acceptor.bind(endpoint, error);
    if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (!error) acceptors_.push_back(std::move(acceptor));
    return error;
  }

  static asio::awaitable<void> accept(std::shared_ptr<Listener> self, tcp::acceptor& acceptor) {
    asio::steady_timer pause(self->strand_);
    while (!self->ended_) {
      const asio::any_io_executor connectionStrand = asio::make_strand(self->executor_);
      auto [error, socket] = co_await acceptor.async_accept(connectionStrand, kWait);
      if (self->ended_) co_return;
      if (!error) {
        self->admit(std::move(socket));
      } else if (isFatalToAcceptor(error)) {
        self->end(TransportFailed{error});
      } else if (error != asio::error::connection_aborted) {
        // No descriptors or no memory: the next attempt would fail at once, again and again.
        pause.expires_after(self->limits_.acceptBackOff);
        co_await pause.async_wait(kWait);
      }
    }
  }

  void admit(tcp::socket socket) {
    error_code ignored;  // a peer that has gone already is noticed by the first read
    socket.set_option(tcp::no_delay(true), ignored);
    if (!onConnection_) return;
    Admission admission;
    admission.rules = {access_, &access_->rules};
    admission.tls = access_->tls;
    const auto remote = socket.remote_endpoint(ignored);
    if (!ignored) admission.peer = peerOf(remote.address());
    admission.place = clients_.take(admission.peer);
    if (!admission.place) {
      if (refusals_.use_count() > kMaxRefusals) return;  // which closes the socket
      admission.refusal = refusals_;
    }
    const auto handler = onConnection_;  // may drop the listener, and with it the handler
    handler(makeSession(std::move(socket), limits_, std::move(admission)));
  }

  void report(const TransportState& state) {
    const auto handler = onState_;
    if (ended_) forgetHandlers();
    if (handler) handler(state);
  }

  const asio::any_io_executor executor_;
  const asio::any_io_executor strand_;
  const std::uint16_t port_;
  const WebSocketLimits limits_;
  const std::shared_ptr<const WebSocketAccess> access_;
  ClientPlaces clients_;
  const std::shared_ptr<void> refusals_ = std::make_shared<int>();  // held by each under way
  std::list<tcp::acceptor> acceptors_;  // the accepting coroutines refer to them
  StateHandler onState_;
  ConnectionHandler onConnection_;
  bool ended_ = false;
};

class TcpTransport final : public WebSocketTransport {
 public:
  TcpTransport(asio::any_io_executor executor, const WebSocketLimits& limits,
               WebSocketAccess access)
      : executor_(std::move(executor)),
        limits_(limits),
        access_(std::make_shared<const WebSocketAccess>(std::move(access))) {}

  bool acceptsPort(std::uint16_t port) const override { return port != 0; }

  boost::system::result<std::shared_ptr<WebSocketListener>> makeListener(
      std::uint16_t port) override {
    auto listener = std::make_shared<Listener>(executor_, port, limits_, access_);
    WebSocketListener* const owned = listener.get();
    return std::shared_ptr<WebSocketListener>(owned,
                                              [listener = std::move(listener)](auto*) mutable {
                                                std::exchange(listener, nullptr)->abandon();
                                              });
  }

 private:
  const asio::any_io_executor executor_;
  const WebSocketLimits limits_;
  const std::shared_ptr<const WebSocketAccess> access_;
};

}  // namespace

std::unique_ptr<WebSocketTransport> makeWebSocketTransport(asio::any_io_executor executor,
                                                           WebSocketLimits limits,
                                                           WebSocketAccess access) {
  return std::make_unique<TcpTransport>(std::move(executor), limits, std::move(access));
}

}  // namespace tarnlink
