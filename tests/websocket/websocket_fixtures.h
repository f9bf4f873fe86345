// Both ends of WebSocket connections for tests: a server over the real transport that says what it
// saw, and a client that speaks octets.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <boost/asio.hpp>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "websocket/tls_context.h"
#include "websocket/websocket.h"

namespace tarnlink::test {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using namespace std::chrono_literals;

constexpr auto kPatience = 5s;

// As programs that serve TLS do.
inline const auto kSigPipe = std::signal(SIGPIPE, SIG_IGN);

/// Servers and clients of this process use TLS.
inline bool isTls = false;

/// A folder with a certificate (name.pem) and its key (name.key).
class Certificates {
 public:
  explicit Certificates(const std::string& name = "a") { make(name, "-nodes"); }
  ~Certificates() { std::filesystem::remove_all(folder_); }
  void make(const std::string& name, const std::string& more) const {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -days 2 -subj /CN=localhost "
        "-keyout " +
        file(name + ".key") + " -out " + file(name + ".pem") + " " + more + " 2>&-";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
  }
  std::string file(const std::string& name) const { return folder_ + "/" + name; }
  std::shared_ptr<const TlsContext> context() const {
    return *TlsContext::load(file("a.pem"), file("a.key"));
  }

 private:
  std::string pattern_ = std::filesystem::temp_directory_path() / "tls-XXXXXX";
  std::string folder_ = ::mkdtemp(pattern_.data());
};

inline const Certificates& certificates() {
  static const Certificates made;
  return made;
}

inline std::uint16_t freePort() {
  asio::io_context context;
  return tcp::acceptor(context, tcp::endpoint(tcp::v6(), 0)).local_endpoint().port();
}

inline SharedTextFrame frameOf(std::size_t size, char fill = 'x') {
  return TextFrame::copyOf(std::string(size, fill));
}

/// This process's ends of connections to one of its ports.
inline std::vector<int> connectionsTo(std::uint16_t port) {
  std::vector<int> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int socket = std::stoi(entry.path().filename());
    sockaddr_in6 local{}, remote{};
    socklen_t size = sizeof local, remoteSize = sizeof remote;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&local), &size) == 0 &&
        ::getpeername(socket, reinterpret_cast<sockaddr*>(&remote), &remoteSize) == 0 &&
        ntohs(local.sin6_port) == port) {
      found.push_back(socket);
    }
  }
  return found;
}

/// A server on two threads that records everything.
class Server {
 public:
  /// What happens to messages. Echoes are text: of a binary message, its size.
  enum class Messages { recorded, echoed, leftUnread };

  explicit Server(WebSocketLimits limits = {}, Messages messages = Messages::recorded,
                  WebSocketAccess access = {}, Standing standing = Standing::admitted)
      : messages_(messages), standing_(standing) {
    if (isTls) access.tls = certificates().context();
    transport_ = makeWebSocketTransport(context_.get_executor(), limits, std::move(access));
    listener_ = transport_->makeListener(port).value();
    listener_->start([this](const TransportState& state) { note(listenerReports, state); },
                     [this](auto connection) { accept(std::move(connection)); });
    for (auto& thread : threads_) thread = std::thread([this] { context_.run(); });
    EXPECT_TRUE(eventually([this] { return !listenerReports.empty(); }));
  }

  ~Server() {
    listener_->cancel();
    {
      const std::lock_guard lock(mutex_);
      isEnding_ = true;
      for (const auto& peer : peers_) {
        if (peer->connection) peer->connection->cancel();
      }
    }
    work_.reset();  // run() returns when every socket and coroutine has ended
    for (auto& thread : threads_) thread.join();
    peers_.clear();  // sockets go before their context
  }

  WebSocketListener& listener() { return *listener_; }

  bool eventually(const std::function<bool()>& condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, condition);
  }

  /// The n-th connection in the order of acceptance, once it has reported something.
  std::shared_ptr<WebSocketConnection>& operator[](std::size_t n) {
    reportsOf(n);
    const std::lock_guard lock(mutex_);
    return peers_.at(n)->connection;
  }
  /// What it did, once there is so much: states, messages ("< text"), the end of receiving.
  std::vector<std::string> reportsOf(std::size_t n, std::size_t count = 1) {
    EXPECT_TRUE(
        eventually([&] { return peers_.size() > n && peers_[n]->reports.size() >= count; }));
    const std::lock_guard lock(mutex_);
    return peers_.at(n)->reports;
  }
  /// For those that come in any order.
  std::vector<std::string> sortedReportsOf(std::size_t n, std::size_t count) {
    auto found = reportsOf(n, count);
    std::sort(found.begin(), found.end());
    return found;
  }

  /// The next message of the n-th connection, or its end.
  std::string take(std::size_t n) {
    auto next = asio::co_spawn(context_, (*this)[n]->receive(), asio::use_future);
    if (next.wait_for(kPatience) != std::future_status::ready) return "nothing";
    const auto message = next.get();
    return message ? message->data : "end: " + message.error().message();
  }

  const std::uint16_t port = freePort();
  std::vector<std::string> listenerReports;

 private:
  struct Peer {
    std::shared_ptr<WebSocketConnection> connection;
    std::vector<std::string> reports;
  };

  void accept(std::shared_ptr<WebSocketConnection> connection) {
    Peer* peer = nullptr;
    {
      const std::lock_guard lock(mutex_);
      if (isEnding_) return;
      peer = peers_.emplace_back(std::make_unique<Peer>()).get();
      peer->connection = connection;
      changed_.notify_all();
    }
    if (standing_ != Standing::stranger) connection->setStanding(standing_);
    connection->send(TextFrame::copyOf("early"));
    connection->start(
        [this, peer](const TransportState& state) {
          note(peer->reports, state);
          if (messages_ != Messages::leftUnread && std::holds_alternative<TransportReady>(state)) {
            asio::co_spawn(asio::make_strand(context_), receive(*peer), asio::detached);
          }
        },
        [](const error_code&) {});
  }

  asio::awaitable<void> receive(Peer& peer) {
    while (const auto connection = peer.connection) {
      auto message = co_await connection->receive();
      add(peer.reports,
          message ? "< " + message->data.substr(0, 80) : "end: " + message.error().message());
      if (!message) co_return;
      if (messages_ == Messages::echoed) {
        const std::string size = std::to_string(message->data.size()) + " octets";
        connection->send(TextFrame::copyOf(message->isText ? message->data : size));
      }
    }
  }

  void note(std::vector<std::string>& reports, const TransportState& state) {
    std::string text = std::array{"ready", "failed: ", "cancelled", "lost: "}.at(state.index());
    if (const auto* lost = std::get_if<TransportLost>(&state)) text += lost->error.message();
    if (const auto* failed = std::get_if<TransportFailed>(&state)) {
      text += failed->error.message() + (failed->detail.empty() ? "" : ": " + failed->detail);
    }
    add(reports, std::move(text));
  }

  void add(std::vector<std::string>& reports, std::string report) {
    const std::lock_guard lock(mutex_);
    reports.push_back(std::move(report));
    changed_.notify_all();
  }

  const Messages messages_;
  const Standing standing_;
  asio::io_context context_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_{
      context_.get_executor()};
  std::unique_ptr<WebSocketTransport> transport_;
  std::shared_ptr<WebSocketListener> listener_;
  std::mutex mutex_;  // guards what follows and all reports
  std::condition_variable changed_;
  std::vector<std::unique_ptr<Peer>> peers_;
  bool isEnding_ = false;
  std::array<std::thread, 2> threads_;
};

constexpr int kEnd = -1;  // in place of an opcode: the connection ended in order,
constexpr int kReset = -2;
constexpr int kNothing = -3;  // nothing came in time
constexpr int kText = 1;
constexpr int kClose = 8;
constexpr int kPing = 9;
constexpr int kPong = 10;

struct Frame {
  int opcode = kEnd;
  std::string payload;
  bool operator==(const Frame&) const = default;
  bool isOver() const { return opcode == kEnd || opcode == kReset; }
};
inline std::ostream& operator<<(std::ostream& out, const Frame& frame) {
  return out << frame.opcode << ":" << frame.payload.substr(0, 40);
}

inline Frame closeFrame(int code, const std::string& reason = {}) {
  return {kClose, std::string{static_cast<char>(code >> 8), static_cast<char>(code)} + reason};
}

/// A masked frame; the first octet is given as on the wire.
inline std::string wire(int firstOctet, const std::string& payload, int maskBit = 0x80) {
  std::string out{static_cast<char>(firstOctet)};
  const auto size = payload.size();
  out += static_cast<char>(maskBit | (size < 126     ? static_cast<int>(size)
                                      : size < 65536 ? 126
                                                     : 127));
  for (int shift = size < 126 ? -8 : size < 65536 ? 8 : 56; shift >= 0; shift -= 8) {
    out += static_cast<char>(size >> shift);
  }
  if (maskBit == 0) return out + payload;
  constexpr std::string_view kMask = "\x37\xFA\x21\x3D";
  out += kMask;
  for (std::size_t i = 0; i < size; ++i) out += static_cast<char>(payload[i] ^ kMask[i % 4]);
  return out;
}

/// A client that speaks octets.
class RawClient {
 public:
  explicit RawClient(std::uint16_t port, int receiveBuffer = 0) {
    socket_.open(tcp::v4());
    if (receiveBuffer > 0) {
      socket_.set_option(asio::socket_base::receive_buffer_size(receiveBuffer));
    }
    socket_.connect({asio::ip::address_v4::loopback(), port});
    socket_.set_option(tcp::no_delay(true));
    const timeval patience{5, 0};
    ::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (!isTls) return;
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(
        SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    SSL_CTX_load_verify_file(context.get(), certificates().file("a.pem").c_str());
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    ssl_.reset(SSL_new(context.get()));
    SSL_set_fd(ssl_.get(), socket_.native_handle());
    EXPECT_EQ(SSL_connect(ssl_.get()), 1);
  }

  static RawClient upgraded(std::uint16_t port, int receiveBuffer = 0) {
    RawClient client(port, receiveBuffer);
    client.send(kUpgrade);
    EXPECT_EQ(client.readStatus(), "101");
    EXPECT_EQ(client.read(), (Frame{kText, "early"}));
    return client;
  }

  void send(const std::string& octets) {
    if (ssl_) {
      SSL_write(ssl_.get(), octets.data(), static_cast<int>(octets.size()));
      return;
    }
    error_code ignored;  // the server may have closed in order already
    asio::write(socket_, asio::buffer(octets), ignored);
  }

  void close() { socket_.close(); }
  void reset() {
    socket_.set_option(asio::socket_base::linger(true, 0));
    socket_.close();
  }
  /// The end of what is sent: close_notify or FIN.
  void finish() {
    if (ssl_) SSL_shutdown(ssl_.get());
    if (!ssl_) socket_.shutdown(tcp::socket::shutdown_send);
  }

  std::string readHead() {
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos && take(head, head.size() + 1)) {
    }
    return head;
  }

  std::string readStatus() { return (readHead() + std::string(12, ' ')).substr(9, 3); }

  Frame read() {
    std::string head;
    if (!take(head, 2)) return {failure_, ""};
    std::size_t size = static_cast<unsigned char>(head[1]);
    if (size >= 126) {
      std::string length;
      if (!take(length, size == 126 ? 2u : 8u)) return {failure_, ""};
      size = 0;
      for (const unsigned char c : length) size = size << 8 | c;
    }
    Frame frame{static_cast<unsigned char>(head[0]) & 0x0F, ""};
    if ((head[0] & 0xF0) != 0x80 || !take(frame.payload, size)) return {failure_, "half a frame"};
    return frame;
  }

  /// What comes after all texts, and their number.
  std::pair<Frame, int> readPastTexts() {
    std::pair<Frame, int> found{read(), 0};
    for (; found.first.opcode == kText; found.first = read()) ++found.second;
    return found;
  }

  static inline const std::string kUpgrade =
      "GET /any HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n"
      "Origin: http://elsewhere\r\nSec-WebSocket-Extensions: permessage-deflate\r\n\r\n";

 private:
  // Blocking reads that honour SO_RCVTIMEO, which Asio's do not.
  bool take(std::string& into, std::size_t size) {
    for (std::size_t done = into.size(); done < size;) {
      into.resize(size);
      const auto n = ssl_ ? SSL_read(ssl_.get(), &into[done], static_cast<int>(size - done))
                          : ::recv(socket_.native_handle(), &into[done], size - done, 0);
      done += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
      if (n > 0) continue;
      const bool isEnd = ssl_ ? SSL_get_shutdown(ssl_.get()) != 0 : n == 0;
      failure_ = isEnd ? kEnd : errno == EAGAIN ? kNothing : kReset;
      into.resize(done);
      return false;
    }
    return true;
  }

  std::unique_ptr<asio::io_context> context_ = std::make_unique<asio::io_context>();
  tcp::socket socket_{*context_};
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, SSL_free};
  int failure_ = kEnd;
};

}  // namespace tarnlink::test
