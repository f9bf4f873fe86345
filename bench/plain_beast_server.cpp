// The peer: a WebSocket server as most people write it with Boost.Beast. Each session has a queue
// of shared messages and one async_write under way, one message each. It runs on one thread, so
// that it needs no strand and no post for a message. Without frames it is the server that does
// nothing.
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdio>
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

  void start() {
    websocket_.async_accept([self = shared_from_this()](const error_code& error) {
      if (!error) self->read();
    });
  }

  void send(const Message& message) {
    queue_.push_back(message);
    if (queue_.size() == 1) write();
  }

 private:
  void read() {
    websocket_.async_read(buffer_,
                          [self = shared_from_this()](const error_code& error, std::size_t) {
                            if (error) return;
                            self->buffer_.clear();
                            self->read();
                          });
  }

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
    accept();
  }
  ~PlainBeastServer() override {
    io_.stop();
    if (thread_.joinable()) thread_.join();
  }

  void start() {
    thread_ = std::thread([this] { run(); });
  }
  void run() { io_.run(); }

  void feed(std::size_t frames) override {
    asio::post(io_, [this, frames] {
      for (std::size_t i = 0; i < frames; ++i) {
        for (const auto& session : sessions_) session->send(messages_[i]);
      }
    });
  }
  std::chrono::nanoseconds cpuTime() override { return cpuTimeOf(thread_); }

 private:
  void accept() {
    acceptor_.async_accept([this](const error_code& error, tcp::socket socket) {
      if (error) return;
      error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      sessions_.push_back(std::make_shared<Session>(std::move(socket)));
      sessions_.back()->start();
      accept();
    });
  }

  asio::io_context io_{1};
  tcp::acceptor acceptor_;
  std::vector<Message> messages_;
  std::vector<std::shared_ptr<Session>> sessions_;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<BurstServer> makePlainBeastServer(std::uint16_t port, const Frames& frames) {
  auto server = std::make_unique<PlainBeastServer>(port, frames);
  server->start();
  return server;
}

void runIdleBeastServer(std::uint16_t port) {
  PlainBeastServer server(port, {});
  std::puts("Listening");
  std::fflush(stdout);
  server.run();
}

}  // namespace tarnlink::bench
