// The peer: a WebSocket server as most people write it with Boost.Beast. Each session has a queue
// of shared messages and one async_write under way, one message each. It runs on one thread, so
// that it needs no strand and no post for a message. Without frames it is the server that does
// nothing.
#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <string>
#include <utility>

#include "bench/burst_server.h"

namespace tarnlink::bench {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;

using Message = std::shared_ptr<const std::string>;

class Session : public std::enable_shared_from_this<Session> {
 public:
  explicit Session(tcp::socket socket) : websocket_(std::move(socket)) {
    websocket_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    websocket_.text(true);
  }

  static asio::awaitable<void> serve(std::shared_ptr<Session> self) {
    co_await self->websocket_.async_accept(asio::use_awaitable);
    while (true) {
      co_await self->websocket_.async_read(self->buffer_, asio::use_awaitable);
      self->buffer_.clear();
    }
  }

  void send(const Message& message) {
    queue_.push_back(message);
    if (queue_.size() == 1) write();
  }

 private:
  void write() {
    websocket_.async_write(asio::buffer(*queue_.front()),
                           [self = shared_from_this()](const error_code& error, std::size_t) {
                             if (error) return;
                             self->queue_.pop_front();
                             if (!self->queue_.empty()) self->write();
                           });
  }

  websocket::stream<beast::tcp_stream> websocket_;
  beast::flat_buffer buffer_;
  std::deque<Message> queue_;
};

class PlainBeastServer final : public BurstServer {
 public:
  PlainBeastServer(std::uint16_t port, const Frames& frames)
      : acceptor_(io_, tcp::endpoint(asio::ip::address_v4::loopback(), port)) {
    for (const auto& frame : frames) {
      messages_.push_back(std::make_shared<const std::string>(frame->text()));
    }
    asio::co_spawn(io_, accept(), asio::detached);
    thread_ = std::thread([this] { io_.run(); });
  }
  ~PlainBeastServer() override {
    io_.stop();
    thread_.join();
  }

  void feed(std::size_t frames) override {
    asio::post(io_, [this, frames] {
      for (std::size_t i = 0; i < frames; ++i) {
        for (const auto& session : sessions_) session->send(messages_[i]);
      }
    });
  }

 private:
  asio::awaitable<void> accept() {
    while (true) {
      auto socket = co_await acceptor_.async_accept(asio::use_awaitable);
      socket.set_option(tcp::no_delay(true));
      sessions_.push_back(std::make_shared<Session>(std::move(socket)));
      asio::co_spawn(io_, Session::serve(sessions_.back()), asio::detached);
    }
  }

  asio::io_context io_{1};
  tcp::acceptor acceptor_;
  std::vector<Message> messages_;
  std::vector<std::shared_ptr<Session>> sessions_;
};

}  // namespace

std::unique_ptr<BurstServer> makePlainBeastServer(std::uint16_t port, const Frames& frames,
                                                  std::size_t) {
  return std::make_unique<PlainBeastServer>(port, frames);
}

}  // namespace tarnlink::bench
