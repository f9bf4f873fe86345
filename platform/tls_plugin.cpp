#include "platform/tls_plugin.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/system_error.hpp>
#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace tarnlink {
namespace {

namespace asio = boost::asio;
namespace ssl = boost::asio::ssl;
using asio::ip::tcp;
using boost::system::error_code;
using Local = asio::local::stream_protocol::socket;
using Block = std::array<char, 16 * 1024>;  // A TLS record holds no more (RFC 8446, 5.1). Octets.

// From the end of what the inside says to the reset of the outside at the latest.
constexpr std::chrono::milliseconds kFarewell{5'000};
// The same when the inside is gone altogether.
constexpr std::chrono::milliseconds kInsideGone{1'000};

constexpr auto kWait = asio::as_tuple(asio::use_awaitable);

/// One connection. Keeps itself alive while anything is under way; everything runs on one thread.
class Pump : public std::enable_shared_from_this<Pump> {
 public:
  Pump(tcp::socket socket, ssl::context& context, Local inside)
      : tls_(std::move(socket), context),
        inside_(std::move(inside)),
        readingEnded_(inside_.get_executor(), asio::steady_timer::time_point::max()) {}

  void start() {
    asio::co_spawn(inside_.get_executor(), run(shared_from_this()), asio::detached);
    asio::co_spawn(inside_.get_executor(), watchInside(shared_from_this()), asio::detached);
  }

 private:
  static asio::awaitable<void> run(std::shared_ptr<Pump> self) {
    const auto [error] = co_await self->tls_.async_handshake(ssl::stream_base::server, kWait);
    if (error) {
      self->end(false);
      co_return;
    }
    self->isReading_ = true;
    asio::co_spawn(self->inside_.get_executor(), inwards(self), asio::detached);
    co_await outwards(self);
  }

  static asio::awaitable<void> inwards(std::shared_ptr<Pump> self) {
    Block block;
    error_code error;
    while (!error && !self->isClosing_) {
      std::size_t size = 0;
      const auto room = asio::buffer(block);
      std::tie(error, size) = co_await self->tls_.async_read_some(room, kWait);
      if (error) break;
      const auto octets = asio::buffer(block, size);
      std::tie(error, std::ignore) = co_await asio::async_write(self->inside_, octets, kWait);
    }
    self->isReading_ = false;
    self->readingEnded_.cancel();
    if (!self->isClosing_) self->inside_.shutdown(Local::shutdown_send, error);
  }

  static asio::awaitable<void> outwards(std::shared_ptr<Pump> self) {
    Block block;
    error_code error;
    while (true) {
      std::size_t size = 0;
      const auto room = asio::buffer(block);
      std::tie(error, size) = co_await self->inside_.async_read_some(room, kWait);
      if (error) break;
      const auto octets = asio::buffer(block, size);
      std::tie(error, std::ignore) = co_await asio::async_write(self->tls_, octets, kWait);
      if (error) {
        self->end(true);
        co_return;
      }
    }
    co_await sayGoodbye(self);
    self->end(false);
  }

  // close_notify, then the peer's end: a socket that is closed with unread octets is reset, which
  // can overtake what was sent last.
  static asio::awaitable<void> sayGoodbye(std::shared_ptr<Pump> self) {
    self->isClosing_ = true;
    self->endAfter(kFarewell);
    error_code error;
    self->tls_.next_layer().cancel(error);  // TLS goes on with one thing at a time
    while (self->isReading_ && !self->isEnded_) co_await self->readingEnded_.async_wait(kWait);
    co_await self->tls_.async_shutdown(kWait);
    self->tls_.next_layer().shutdown(tcp::socket::shutdown_send, error);
    Block block;
    const auto room = asio::buffer(block);
    while (!error) {
      std::tie(error, std::ignore) = co_await self->tls_.next_layer().async_read_some(room, kWait);
    }
  }

  // Nobody else notices while the outside takes nothing.
  static asio::awaitable<void> watchInside(std::shared_ptr<Pump> self) {
    co_await self->inside_.async_wait(Local::wait_error, kWait);
    self->endAfter(kInsideGone);
  }

  void endAfter(std::chrono::milliseconds time) {
    const auto end = asio::steady_timer::clock_type::now() + time;
    if (isEnded_ || limit_.expiry() <= end) return;
    limit_.expires_at(end);
    limit_.async_wait([self = shared_from_this()](const error_code& cancelled) {
      if (!cancelled) self->end(true);
    });
  }

  void end(bool reset) {
    if (std::exchange(isEnded_, true)) return;
    error_code ignored;
    if (reset) tls_.next_layer().set_option(asio::socket_base::linger(true, 0), ignored);
    tls_.next_layer().close(ignored);
    inside_.close(ignored);
    readingEnded_.cancel();
    limit_.cancel();
  }

  ssl::stream<tcp::socket> tls_;
  Local inside_;
  asio::steady_timer readingEnded_;  // Never expires: cancelled when inwards() has ended.
  asio::steady_timer limit_{inside_.get_executor(), asio::steady_timer::time_point::max()};
  bool isReading_ = false;
  bool isClosing_ = false;
  bool isEnded_ = false;
};

class Pumps final : public TlsPumps {
 public:
  explicit Pumps(ssl::context context)
      : context_(std::move(context)), thread_([this] { io_.run(); }) {}
  ~Pumps() override {
    io_.stop();
    thread_.join();
  }
  Pumps(const Pumps&) = delete;
  Pumps& operator=(const Pumps&) = delete;

  int pump(int socket) override {
    std::array<int, 2> pair{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) {
      const int error = errno;
      ::close(socket);
      return -error;
    }
    asio::post(io_, [this, socket, inside = pair[0]] { start(socket, inside); });
    return pair[1];
  }

 private:
  void start(int outside, int inside) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ::getsockname(outside, reinterpret_cast<sockaddr*>(&address), &length);
    tcp::socket socket(io_);
    Local local(io_);
    error_code error;
    error_code localError;
    socket.assign(address.ss_family == AF_INET6 ? tcp::v6() : tcp::v4(), outside, error);
    local.assign(asio::local::stream_protocol(), inside, localError);
    if (error) ::close(outside);
    if (localError) ::close(inside);
    if (error || localError) return;
    try {
      std::make_shared<Pump>(std::move(socket), context_, std::move(local))->start();
    } catch (const std::exception&) {  // OpenSSL has no memory: both ends have been closed.
      return;
    }
  }

  ssl::context context_;
  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  std::thread thread_;
};

/// Throws std::runtime_error with the file's name and what is wrong with it.
ssl::context contextOf(const char* certificate, const char* key) {
  ssl::context context(ssl::context::tls_server);
  context.set_options(ssl::context::default_workarounds | ssl::context::no_tlsv1 |
                      ssl::context::no_tlsv1_1 | SSL_OP_NO_RENEGOTIATION);
  // Without this OpenSSL would ask on the terminal.
  context.set_password_callback([](std::size_t, ssl::context::password_purpose) { return ""; });
  error_code error;
  context.use_certificate_chain_file(certificate, error);
  if (error) {
    throw std::runtime_error(std::string(certificate) +
                             ": no certificate in PEM: " + error.message());
  }
  context.use_private_key_file(key, ssl::context::pem, error);
  if (error) {
    throw std::runtime_error(std::string(key) +
                             ": not the certificate's key in PEM: " + error.message());
  }
  return context;
}

}  // namespace

extern "C" TlsPumps* tarnlinkMakeTlsPumps(const char* certificate, const char* key,
                                          std::string& error) {
  try {
    return std::make_unique<Pumps>(contextOf(certificate, key)).release();
  } catch (const std::exception& failure) {
    error = failure.what();
    return nullptr;
  }
}

}  // namespace tarnlink
