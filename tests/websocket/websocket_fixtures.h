// Both ends of WebSocket connections for tests: a server over the real transport that says what it
// saw, and a client that speaks octets.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <boost/asio.hpp>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "websocket/websocket.h"

namespace tarnlink::test {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using namespace std::chrono_literals;

constexpr auto kPatience = 5s;

// As programs that use the transport do: OpenSSL writes to peers that have gone.
inline const auto kSigPipe = std::signal(SIGPIPE, SIG_IGN);

inline std::uint16_t freePort() {
  asio::io_context context;
  tcp::acceptor acceptor(context, tcp::endpoint(tcp::v6(), 0));
  return acceptor.local_endpoint().port();
}

inline SharedTextFrame frameOf(std::size_t size, char fill = 'x') {
  return TextFrame::copyOf(std::string(size, fill));
}

/// What one accepted connection did, in the order of its reports.
struct Peer {
  std::shared_ptr<WebSocketConnection> connection;
  std::vector<std::string> reports;  // states, messages ("< text") and the end of receiving
};

/// A server on two threads that records everything.
class Server {
 public:
  /// What happens to messages. Echoes are text: of a binary message, its size.
  enum class Messages { recorded, echoed, leftUnread };

  explicit Server(WebSocketLimits limits = {}, Messages messages = Messages::recorded,
                  WebSocketAccess access = {}, Standing standing = Standing::admitted)
      : messages_(messages),
        standing_(standing),
        transport_(makeWebSocketTransport(context_.get_executor(), limits, std::move(access))) {
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

  /// The n-th connection in the order of acceptance, once it has made so many reports.
  Peer& peer(std::size_t n, std::size_t reports = 1) {
    EXPECT_TRUE(
        eventually([&] { return peers_.size() > n && peers_[n]->reports.size() >= reports; }));
    const std::lock_guard lock(mutex_);
    return *peers_.at(n);
  }

  std::size_t peerCount() {
    const std::lock_guard lock(mutex_);
    return peers_.size();
  }

  /// A copy: further reports may come at any time.
  std::vector<std::string> reportsOf(std::size_t n, std::size_t reports = 1) {
    const Peer& found = peer(n, reports);
    const std::lock_guard lock(mutex_);
    return found.reports;
  }

  /// The next message of the n-th connection, or its end.
  std::string take(std::size_t n) {
    auto next = asio::co_spawn(context_, peer(n).connection->receive(), asio::use_future);
    if (next.wait_for(kPatience) != std::future_status::ready) return "nothing";
    const auto message = next.get();
    return message ? message->data : "end: " + message.error().message();
  }

  const std::uint16_t port = freePort();
  std::vector<std::string> listenerReports;

 private:
  void accept(std::shared_ptr<WebSocketConnection> connection) {
    Peer* peer = nullptr;
    {
      const std::lock_guard lock(mutex_);
      if (isEnding_) return;
      peers_.push_back(std::make_unique<Peer>());
      peer = peers_.back().get();
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
    while (true) {
      const auto connection = peer.connection;
      if (!connection) co_return;
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
    if (const auto* failed = std::get_if<TransportFailed>(&state)) {
      add(reports, "failed: " + failed->error.message() +
                       (failed->detail.empty() ? "" : ": " + failed->detail));
    } else if (const auto* lost = std::get_if<TransportLost>(&state)) {
      add(reports, "lost: " + lost->error.message());
    } else {
      add(reports, std::holds_alternative<TransportReady>(state) ? "ready" : "cancelled");
    }
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
  std::mutex mutex_;  // guards what follows, all reports, and each peer's connection when it is new
  std::condition_variable changed_;
  std::vector<std::unique_ptr<Peer>> peers_;
  bool isEnding_ = false;
  std::array<std::thread, 2> threads_;
};

struct Frame {
  int opcode = -1;  // -1: the connection ended, -2: it was reset, -3: nothing came in time
  std::string payload;
  bool operator==(const Frame&) const = default;
  bool isOver() const { return opcode == -1 || opcode == -2; }
};
inline std::ostream& operator<<(std::ostream& out, const Frame& frame) {
  return out << frame.opcode << ":" << frame.payload.substr(0, 40);
}
constexpr int kEnd = -1;
constexpr int kText = 1;
constexpr int kClose = 8;
constexpr int kPing = 9;
constexpr int kPong = 10;

inline Frame closeFrame(int code, const std::string& reason = {}) {
  return {kClose, std::string{static_cast<char>(code >> 8), static_cast<char>(code)} + reason};
}

/// A masked frame; the first octet is given as on the wire.
inline std::string wire(int firstOctet, const std::string& payload, int maskBit = 0x80) {
  std::string out{static_cast<char>(firstOctet)};
  const auto size = payload.size();
  if (size < 126) {
    out += static_cast<char>(maskBit | static_cast<int>(size));
  } else {
    out += static_cast<char>(maskBit | (size < 65536 ? 126 : 127));
    for (int shift = size < 65536 ? 8 : 56; shift >= 0; shift -= 8) {
      out += static_cast<char>(size >> shift);
    }
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
  }

  static RawClient upgraded(std::uint16_t port, int receiveBuffer = 0) {
    RawClient client(port, receiveBuffer);
    client.send(kUpgrade);
    EXPECT_EQ(client.readHead().substr(0, 12), "HTTP/1.1 101");
    EXPECT_EQ(client.read(), (Frame{kText, "early"}));
    return client;
  }

  void send(const std::string& octets) {
    error_code ignored;  // the server may have said goodbye already
    asio::write(socket_, asio::buffer(octets), ignored);
  }

  /// In pieces of so many octets, which arrive one by one more often than not.
  void send(std::string_view octets, std::size_t piece) {
    for (; !octets.empty(); octets.remove_prefix(std::min(piece, octets.size()))) {
      send(std::string(octets.substr(0, piece)));
    }
  }

  void close() { socket_.close(); }
  void reset() {
    socket_.set_option(asio::socket_base::linger(true, 0));
    socket_.close();
  }
  void finish() { socket_.shutdown(tcp::socket::shutdown_send); }

  std::string readHead() {
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos && take(head, head.size() + 1)) {
    }
    return head;
  }

  Frame read() {
    std::string head;
    if (!take(head, 2)) return {failure_, ""};
    std::size_t size = static_cast<unsigned char>(head[1]);
    if (size >= 126) {
      const auto lengthOctets = size == 126 ? 2u : 8u;
      std::string length;
      if (!take(length, lengthOctets)) return {failure_, ""};
      size = 0;
      for (const unsigned char c : length) size = size << 8 | c;
    }
    Frame frame{static_cast<unsigned char>(head[0]) & 0x0F, ""};
    if ((head[0] & 0xF0) != 0x80 || !take(frame.payload, size)) return {failure_, "half a frame"};
    return frame;
  }

  Frame readToEnd() {
    Frame frame;
    while ((frame = read()).opcode >= 0) {
    }
    return frame;
  }

  static inline const std::string kUpgrade =
      "GET /any HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n"
      "Origin: http://elsewhere\r\nSec-WebSocket-Extensions: permessage-deflate\r\n\r\n";

 private:
  // Blocking reads that honour SO_RCVTIMEO, which Asio's do not.
  bool take(std::string& into, std::size_t size) {
    while (into.size() < size) {
      if (read_ == buffered_) {
        const auto n = ::recv(socket_.native_handle(), buffer_.data(), buffer_.size(), 0);
        if (n <= 0) {
          failure_ = n == 0 ? kEnd : errno == EAGAIN ? -3 : -2;
          return false;
        }
        read_ = 0;
        buffered_ = static_cast<std::size_t>(n);
      }
      const auto part = std::min(size - into.size(), buffered_ - read_);
      into.append(buffer_.data() + read_, part);
      read_ += part;
    }
    return true;
  }

  std::unique_ptr<asio::io_context> context_ = std::make_unique<asio::io_context>();
  tcp::socket socket_{*context_};
  std::vector<char> buffer_ = std::vector<char>(16384);
  std::size_t read_ = 0;
  std::size_t buffered_ = 0;
  int failure_ = kEnd;
};

}  // namespace tarnlink::test
