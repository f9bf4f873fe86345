#include "websocket/websocket_client.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
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

class WebSocketClient::Impl {
 public:
  error_code connect(const std::string& host, std::uint16_t port, Clock::time_point deadline) {
    tcp::resolver resolver(context_);
    tcp::resolver::results_type endpoints;
    const auto service = std::to_string(port);
    auto error = await(deadline, [&](auto handler) {
      resolver.async_resolve(host, service, [&endpoints, handler](error_code e, auto found) {
        endpoints = found;
        handler(e);
      });
    });
    if (error) return error;
    error = await(deadline, [&](auto handler) {
      asio::async_connect(socket(), endpoints,
                          [handler](error_code e, const tcp::endpoint&) { handler(e); });
    });
    if (error) return error;
    socket().set_option(tcp::no_delay(true), error);
    websocket::response_type response;
    error = await(deadline, [&](auto handler) {
      websocket_.async_handshake(response, hostField(host, port), "/", handler);
    });
    if (error != websocket::error::upgrade_declined) return error;
    return response.result() == boost::beast::http::status::service_unavailable
               ? WebSocketClientError::full
               : WebSocketClientError::declined;
  }

  error_code sendText(std::string_view text, Clock::time_point deadline) {
    websocket_.text(true);
    return translated(await(deadline, [&](auto handler) {
      websocket_.async_write(asio::buffer(text),
                             [handler](error_code e, std::size_t) { handler(e); });
    }));
  }

  boost::system::result<WebSocketMessage> receive(Clock::time_point deadline) {
    if (!reading_) {
      reading_ = true;
      readResult_.reset();
      websocket_.async_read(incoming_, [this](error_code e, std::size_t) { readResult_ = e; });
    }
    if (!runUntil(deadline, readResult_)) return error_code(WebSocketClientError::timedOut);
    reading_ = false;
    if (*readResult_) return translated(*readResult_);
    WebSocketMessage message;
    message.isText = websocket_.got_text();
    message.data.assign(static_cast<const char*>(incoming_.data().data()), incoming_.size());
    incoming_.clear();
    return message;
  }

  error_code close(std::uint16_t code, Clock::time_point deadline) {
    const websocket::close_reason reason(static_cast<websocket::close_code>(code));
    auto error = await(deadline, [&](auto handler) { websocket_.async_close(reason, handler); });
    error_code ignored;
    socket().close(ignored);
    return translated(error);
  }

  std::uint16_t closeCode() const { return closeCode_; }
  int descriptor() { return socket().native_handle(); }

 private:
  tcp::socket& socket() { return websocket_.next_layer(); }

  // Begins one operation and waits for it. An operation that is late is aborted.
  template <class Begin>
  error_code await(Clock::time_point deadline, Begin begin) {
    const auto result = std::make_shared<std::optional<error_code>>();
    begin([result](error_code error) { *result = error; });
    if (runUntil(deadline, *result)) return **result;
    error_code ignored;
    socket().close(ignored);
    return WebSocketClientError::timedOut;
  }

  bool runUntil(Clock::time_point deadline, const std::optional<error_code>& result) {
    context_.restart();
    while (!result && context_.run_one_until(deadline) > 0) {
    }
    return result.has_value();
  }

  error_code translated(error_code error) {
    if (error != websocket::error::closed && error != asio::error::eof) return error;
    if (error == websocket::error::closed) closeCode_ = websocket_.reason().code;
    return WebSocketClientError::closed;
  }

  asio::io_context context_{1};
  websocket::stream<tcp::socket, false> websocket_{context_};
  boost::beast::flat_buffer incoming_;
  bool reading_ = false;
  std::optional<error_code> readResult_;
  std::uint16_t closeCode_ = 0;
};

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
  if (const auto error = impl_->sendText(text, Clock::now() + timeout)) return error;
  return {};
}

boost::system::result<WebSocketMessage> WebSocketClient::receive(Milliseconds timeout) {
  return impl_->receive(Clock::now() + timeout);
}

boost::system::result<void> WebSocketClient::close(std::uint16_t code, Milliseconds timeout) {
  if (const auto error = impl_->close(code, Clock::now() + timeout)) return error;
  return {};
}

std::uint16_t WebSocketClient::closeCode() const {
  return impl_->closeCode();
}

int WebSocketClient::descriptor() const {
  return impl_->descriptor();
}

}  // namespace tarnlink
