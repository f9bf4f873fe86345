#include "websocket/websocket_client.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <optional>
#include <utility>

namespace tarnlink {
namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

// The base has no virtual destructor, and needs none: categories are never deleted through it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class ClientCategory final : public boost::system::error_category {
 public:
  const char* name() const noexcept override { return "tarnlink.websocket-client"; }

  std::string message(int value) const override {
    switch (static_cast<WebSocketClientError>(value)) {
      case WebSocketClientError::timedOut:
        return "no answer in time";
      case WebSocketClientError::closed:
        return "connection closed by the peer";
      case WebSocketClientError::full:
        return "all places for clients are taken";
      case WebSocketClientError::declined:
        return "no WebSocket connections are taken there";
    }
    return "unknown WebSocket client error";
  }
};
#pragma GCC diagnostic pop

// RFC 7230, 5.4: the Host field has the port, and brackets around an IPv6 address.
std::string hostField(const std::string& host, std::uint16_t port) {
  const bool isIpv6 = host.find(':') != std::string::npos;
  return (isIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

}  // namespace

error_code make_error_code(WebSocketClientError error) {
  static const ClientCategory category;
  return {static_cast<int>(error), category};
}

struct WebSocketClient::Impl {
  tcp::socket& socket() { return websocket.next_layer(); }

  // Begins one operation and waits for it. An operation that is late is aborted.
  template <class Begin>
  error_code await(Clock::time_point deadline, Begin begin) {
    const auto result = std::make_shared<std::optional<error_code>>();
    begin([result](error_code error, const auto&...) { *result = error; });
    if (runUntil(deadline, *result)) return **result;
    error_code ignored;
    socket().close(ignored);
    return WebSocketClientError::timedOut;
  }

  bool runUntil(Clock::time_point deadline, const std::optional<error_code>& result) {
    context.restart();
    while (!result && context.run_one_until(deadline) > 0) {
    }
    return result.has_value();
  }

  error_code translated(error_code error) {
    if (error != websocket::error::closed && error != asio::error::eof) return error;
    if (error == websocket::error::closed) closeCode = websocket.reason().code;
    return WebSocketClientError::closed;
  }

  error_code connect(const std::string& host, std::uint16_t port, Clock::time_point deadline);

  asio::io_context context{1};
  websocket::stream<tcp::socket, false> websocket{context};
  boost::beast::flat_buffer incoming;
  bool isReading = false;
  std::optional<error_code> readResult;
  std::uint16_t closeCode = 0;
};

error_code WebSocketClient::Impl::connect(const std::string& host, std::uint16_t port,
                                          Clock::time_point deadline) {
  tcp::resolver resolver(context);
  tcp::resolver::results_type endpoints;
  auto error = await(deadline, [&](auto handler) {
    resolver.async_resolve(host, std::to_string(port),
                           [&endpoints, handler](error_code e, auto found) {
                             endpoints = found;
                             handler(e);
                           });
  });
  if (error) return error;
  error = await(deadline, [&](auto handler) { asio::async_connect(socket(), endpoints, handler); });
  if (error) return error;
  socket().set_option(tcp::no_delay(true), error);
  websocket::response_type response;
  error = await(deadline, [&](auto handler) {
    websocket.async_handshake(response, hostField(host, port), "/", handler);
  });
  if (error != websocket::error::upgrade_declined) return error;
  return response.result() == boost::beast::http::status::service_unavailable
             ? WebSocketClientError::full
             : WebSocketClientError::declined;
}

WebSocketClient::WebSocketClient(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
WebSocketClient::WebSocketClient(WebSocketClient&&) noexcept = default;
WebSocketClient& WebSocketClient::operator=(WebSocketClient&&) noexcept = default;
WebSocketClient::~WebSocketClient() = default;

boost::system::result<WebSocketClient> WebSocketClient::connect(const std::string& host,
                                                                std::uint16_t port,
                                                                Milliseconds timeout) {
  auto impl = std::make_unique<Impl>();
  if (const auto error = impl->connect(host, port, Clock::now() + timeout)) return error;
  return WebSocketClient(std::move(impl));
}

boost::system::result<void> WebSocketClient::sendText(std::string_view text, Milliseconds timeout) {
  auto& websocket = impl_->websocket;
  websocket.text(true);
  const auto error = impl_->translated(impl_->await(Clock::now() + timeout, [&](auto handler) {
    websocket.async_write(asio::buffer(text), handler);
  }));
  if (error) return error;
  return {};
}

boost::system::result<WebSocketMessage> WebSocketClient::receive(Milliseconds timeout) {
  auto& self = *impl_;
  if (!std::exchange(self.isReading, true)) {
    self.readResult.reset();
    self.websocket.async_read(self.incoming,
                              [&self](error_code e, std::size_t) { self.readResult = e; });
  }
  if (!self.runUntil(Clock::now() + timeout, self.readResult)) {
    return error_code(WebSocketClientError::timedOut);
  }
  self.isReading = false;
  if (*self.readResult) return self.translated(*self.readResult);
  WebSocketMessage message{self.websocket.got_text(),
                           boost::beast::buffers_to_string(self.incoming.data())};
  self.incoming.clear();
  return message;
}

boost::system::result<void> WebSocketClient::close(std::uint16_t code, Milliseconds timeout) {
  const websocket::close_reason reason(static_cast<websocket::close_code>(code));
  const auto error = impl_->await(
      Clock::now() + timeout, [&](auto handler) { impl_->websocket.async_close(reason, handler); });
  error_code ignored;
  impl_->socket().close(ignored);
  if (error) return impl_->translated(error);
  return {};
}

std::uint16_t WebSocketClient::closeCode() const {
  return impl_->closeCode;
}

int WebSocketClient::descriptor() const {
  return impl_->socket().native_handle();
}

}  // namespace tarnlink
