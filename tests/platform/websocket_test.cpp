#include "platform/websocket.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio.hpp>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "platform/websocket_client.h"

namespace tarnlink {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using namespace std::chrono_literals;

constexpr auto kPatience = 5s;

std::uint16_t freePort() {
  asio::io_context context;
  tcp::acceptor acceptor(context, tcp::endpoint(tcp::v6(), 0));
  return acceptor.local_endpoint().port();
}

SharedTextFrame frameOf(std::size_t size, char fill = 'x') {
  return TextFrame::copyOf(std::string(size, fill));
}

/// What one accepted connection did, in the order of its reports.
struct Peer {
  std::shared_ptr<WebSocketConnection> connection;
  std::vector<std::string> reports;  // states, messages ("< text") and the end of receiving
};

/// A server on two threads that records everything, and reads when it is told to.
class Server {
 public:
  explicit Server(WebSocketLimits limits = {}, bool reads = true)
      : reads_(reads), transport_(makeWebSocketTransport(context_.get_executor(), limits)) {
    listener_ = transport_->makeListener(port).value();
    listener_->start([this](const TransportState& state) { note(listenerReports, state); },
                     [this](auto connection) { accept(std::move(connection)); });
    for (auto& thread : threads_) thread = std::thread([this] { context_.run(); });
    EXPECT_TRUE(eventually([this] { return !listenerReports.empty(); }));
  }

  ~Server() {
    listener_->cancel();
    for (auto& peer : peers) {
      if (peer->connection) peer->connection->cancel();
    }
    work_.reset();  // run() returns when every socket and coroutine has ended
    for (auto& thread : threads_) thread.join();
    peers.clear();  // sockets go before their context
  }

  WebSocketListener& listener() { return *listener_; }

  bool eventually(const std::function<bool()>& condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, condition);
  }

  /// The n-th connection in the order of acceptance, once it has made so many reports.
  Peer& peer(std::size_t n, std::size_t reports = 1) {
    EXPECT_TRUE(
        eventually([&] { return peers.size() > n && peers[n]->reports.size() >= reports; }));
    return *peers.at(n);
  }

  std::vector<std::string> reportsOf(std::size_t n) {
    const std::lock_guard lock(mutex_);
    return peers.at(n)->reports;
  }

  const std::uint16_t port = freePort();
  std::vector<std::string> listenerReports;
  std::vector<std::unique_ptr<Peer>> peers;

 private:
  void accept(std::shared_ptr<WebSocketConnection> connection) {
    Peer* peer = nullptr;
    {
      const std::lock_guard lock(mutex_);
      peers.push_back(std::make_unique<Peer>());
      peer = peers.back().get();
      peer->connection = connection;
    }
    connection->send(TextFrame::copyOf("early"));
    connection->start(
        [this, peer](const TransportState& state) {
          note(peer->reports, state);
          if (reads_ && std::holds_alternative<TransportReady>(state)) {
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
      add(peer.reports, message ? "< " + message->data : "end: " + message.error().message());
      if (!message) co_return;
    }
  }

  void note(std::vector<std::string>& reports, const TransportState& state) {
    if (const auto* failed = std::get_if<TransportFailed>(&state)) {
      add(reports, "failed: " + failed->error.message());
    } else {
      add(reports, std::holds_alternative<TransportReady>(state) ? "ready" : "cancelled");
    }
  }

  void add(std::vector<std::string>& reports, std::string report) {
    const std::lock_guard lock(mutex_);
    reports.push_back(std::move(report));
    changed_.notify_all();
  }

  const bool reads_;
  asio::io_context context_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_{
      context_.get_executor()};
  std::unique_ptr<WebSocketTransport> transport_;
  std::shared_ptr<WebSocketListener> listener_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::array<std::thread, 2> threads_;
};

struct Frame {
  int opcode = -1;  // -1: the connection ended, -2: it was reset, -3: nothing came in time
  std::string payload;
  bool operator==(const Frame&) const = default;
  bool isOver() const { return opcode == -1 || opcode == -2; }
};
std::ostream& operator<<(std::ostream& out, const Frame& frame) {
  return out << frame.opcode << ":" << frame.payload.substr(0, 40);
}
constexpr int kEnd = -1;
constexpr int kText = 1;
constexpr int kClose = 8;
constexpr int kPing = 9;
constexpr int kPong = 10;

Frame closeFrame(int code) {
  return {kClose, {static_cast<char>(code >> 8), static_cast<char>(code)}};
}

/// A masked frame (with a mask of zeros); the first octet is given as on the wire.
std::string wire(int firstOctet, const std::string& payload, int maskBit = 0x80) {
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
  return out + std::string(maskBit != 0 ? 4 : 0, '\0') + payload;
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

  void close() { socket_.close(); }

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

TEST(WebSocketTransport, RequestsThatAreNoUpgradeAreRefusedInHttp) {
  struct Case {
    const char* name;
    std::string request;
    const char* answer;
  };
  auto oldVersion = RawClient::kUpgrade;
  oldVersion.replace(oldVersion.find(": 13"), 4, ": 12");
  const Case cases[] = {
      {"page load", "GET / HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 400"},
      {"post with a body", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nabcde",
       "HTTP/1.1 400"},
      {"no HTTP", "\x16\x03\x01 hello\r\n\r\n", "HTTP/1.1 400"},
      {"old version", oldVersion, "HTTP/1.1 426"},
      {"endless header", "GET / HTTP/1.1\r\nX: " + std::string(100'000, 'a'), "HTTP/1.1 431"},
  };
  Server server;
  std::size_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient client(server.port);
    client.send(c.request);
    EXPECT_EQ(client.readHead().substr(0, 12), c.answer);
    EXPECT_EQ(client.readToEnd().opcode, kEnd);
    server.peer(n);
    EXPECT_EQ(server.reportsOf(n++)[0].substr(0, 7), "failed:");
  }
}

TEST(WebSocketTransport, ViolationsEndInTheirCloseCodeWithoutAReset) {
  struct Case {
    const char* name;
    std::string octets;
    Frame answer;
  };
  const Case cases[] = {
      {"message above the limit, far more unread", wire(0x81, std::string(8'000'000, 'a')),
       closeFrame(1009)},
      {"fragments above the limit together",
       wire(0x01, std::string(900, 'a')) + wire(0x80, std::string(900, 'a')), closeFrame(1009)},
      {"not UTF-8", wire(0x81, "a\xC0\xAF"), closeFrame(1007)},
      {"cut UTF-8 at the end", wire(0x01, "a\xE2") + wire(0x80, "\x82"), closeFrame(1007)},
      {"not masked", wire(0x81, "a", 0), closeFrame(1002)},
      {"reserved bit", wire(0xC1, "a"), closeFrame(1002)},
      {"reserved opcode", wire(0x83, "a"), closeFrame(1002)},
      {"fragmented ping", wire(0x09, "a"), closeFrame(1002)},
      {"long ping", wire(0x89, std::string(126, 'a')), closeFrame(1002)},
      {"continuation of nothing", wire(0x80, "a"), closeFrame(1002)},
      {"close code out of range", wire(0x88, closeFrame(999).payload), closeFrame(1002)},
      {"orderly close", wire(0x88, closeFrame(1000).payload), closeFrame(1000)},
      {"orderly close with a code of its own", wire(0x88, closeFrame(4321).payload),
       closeFrame(4321)},
  };
  WebSocketLimits limits;
  limits.incomingMessage = 1000;
  Server server(limits);
  std::size_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto client = RawClient::upgraded(server.port);
    client.send(wire(0x81, "fine") + wire(0x89, "p") + c.octets);
    EXPECT_EQ(client.read(), (Frame{kPong, "p"}));
    EXPECT_EQ(client.read(), c.answer);
    EXPECT_EQ(client.read().opcode, kEnd);
    const auto reports = server.peer(n++, 3).reports;
    EXPECT_EQ(reports[1], "< fine");
    EXPECT_EQ(reports[2].substr(0, 4), "end:");
  }
}

TEST(WebSocketTransport, PongsGoBetweenWholeFramesAndNothingIsLost) {
  constexpr int kFrames = 3000;
  Server server;
  auto client = RawClient::upgraded(server.port, 4096);
  auto& connection = *server.peer(0).connection;
  std::thread sender([&] {
    for (int i = 0; i < kFrames; ++i) {
      connection.send(TextFrame::copyOf(std::to_string(i) + ":" + std::string(i % 1500, 'x')));
    }
  });
  int pongs = 0;
  for (int i = 0; i < kFrames;) {
    if (i % 100 == 0) client.send(wire(0x80 | kPing, std::to_string(i)));
    const auto frame = client.read();
    if (frame.opcode == kPong) {
      ++pongs;
      continue;
    }
    ASSERT_EQ(frame, (Frame{kText, std::to_string(i) + ":" + std::string(i % 1500, 'x')}));
    ++i;
  }
  sender.join();
  while (pongs < kFrames / 100 && client.read().opcode == kPong) ++pongs;
  EXPECT_GE(pongs, kFrames / 100);
}

TEST(WebSocketTransport, AClientThatDoesNotReadIsDroppedAlone) {
  WebSocketLimits limits;
  limits.sendQueue = 1 << 20;
  Server server(limits);
  auto stuck = RawClient::upgraded(server.port, 4096);
  server.peer(0);
  auto reader = RawClient::upgraded(server.port);
  server.peer(1);
  const auto frame = frameOf(64 << 10);
  const auto isDropped = [&] { return server.reportsOf(0).size() > 1; };
  int sent = 0;
  for (; sent < 2000 && !isDropped(); ++sent) {
    for (const auto& peer : server.peers) peer->connection->send(frame);
    ASSERT_EQ(reader.read().payload.size(), std::size_t{64 << 10});
  }
  const auto full = make_error_code(WebSocketError::sendQueueFull).message();
  auto reports = server.peer(0, 3).reports;
  std::sort(reports.begin(), reports.end());
  EXPECT_EQ(reports, (std::vector<std::string>{"end: " + full, "failed: " + full, "ready"}));
  server.peers[1]->connection->send(TextFrame::copyOf("still here"));
  EXPECT_EQ(reader.read(), (Frame{kText, "still here"}));
}

TEST(WebSocketTransport, NoTextFollowsTheCloseOfThePeer) {
  Server server;
  auto client = RawClient::upgraded(server.port, 4096);
  auto& connection = *server.peer(0).connection;
  for (int i = 0; i < 100; ++i) connection.send(frameOf(256 << 10));
  client.send(wire(0x88, closeFrame(1000).payload));
  std::this_thread::sleep_for(50ms);
  connection.send(frameOf(10));
  int texts = 0;
  Frame frame;
  while ((frame = client.read()).opcode == kText) ++texts;
  EXPECT_LT(texts, 100);
  EXPECT_EQ(frame, closeFrame(1000));
  EXPECT_EQ(client.read().opcode, kEnd);
}

TEST(WebSocketTransport, UnfinishedHandshakesAreDropped) {
  WebSocketLimits limits;
  limits.handshake = 200ms;
  Server server(limits);
  const auto failure = "failed: " + make_error_code(WebSocketError::handshakeTimeout).message();
  RawClient silent(server.port);
  RawClient half(server.port);
  half.send("GET / HTTP/1.1\r\nHo");
  RawClient trickling(server.port);
  for (int i = 0; i < 10; ++i) {
    trickling.send("G");
    std::this_thread::sleep_for(30ms);
  }
  for (auto* client : {&silent, &half}) EXPECT_EQ(client->read().opcode, kEnd);
  EXPECT_TRUE(trickling.readToEnd().isOver());
  for (std::size_t n = 0; n < 3; ++n) EXPECT_EQ(server.peer(n).reports[0], failure);
}

TEST(WebSocketTransport, OnlySilentConnectionsGoIdle) {
  WebSocketLimits limits;
  limits.idle = 300ms;
  Server server(limits);
  auto silent = RawClient::upgraded(server.port);
  server.peer(0);
  auto answering = RawClient::upgraded(server.port);
  server.peer(1);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(answering.read(), (Frame{kPing, ""}));
    answering.send(wire(0x80 | kPong, ""));
  }
  EXPECT_EQ(silent.read(), (Frame{kPing, ""}));
  EXPECT_TRUE(silent.read().isOver());
  const auto idle = make_error_code(WebSocketError::idleTimeout).message();
  auto reports = server.peer(0, 3).reports;
  std::sort(reports.begin(), reports.end());
  EXPECT_EQ(reports, (std::vector<std::string>{"end: " + idle, "failed: " + idle, "ready"}));
  EXPECT_EQ(server.reportsOf(1).size(), 1u);
}

TEST(WebSocketTransport, AClientWhoseMessagesNobodyTakesIsNotIdle) {
  WebSocketLimits limits;
  limits.idle = 100ms;
  Server server(limits, false);
  auto client = RawClient::upgraded(server.port);
  server.peer(0);
  std::this_thread::sleep_for(400ms);
  server.peers[0]->connection->send(TextFrame::copyOf("alive"));
  EXPECT_EQ(client.read(), (Frame{kText, "alive"}));
}

TEST(WebSocketTransport, EndingByTheOwner) {
  enum class Way { cancel, cancelTwice, drop };
  struct Case {
    const char* name;
    Way way;
    bool peerReads;
    std::vector<std::string> reports;
  };
  const Case cases[] = {
      {"cancel", Way::cancel, true, {"cancelled", "ready"}},
      {"cancel twice", Way::cancelTwice, true, {"cancelled", "ready"}},
      {"drop", Way::drop, true, {"ready"}},
      {"cancel, peer does not read", Way::cancel, false, {"cancelled", "ready"}},
  };
  Server server({}, false);
  std::size_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto client = RawClient::upgraded(server.port, 4096);
    auto& peer = server.peer(n);
    for (int i = 0; i < (c.peerReads ? 1 : 100); ++i) peer.connection->send(frameOf(256 << 10));
    const auto before = std::chrono::steady_clock::now();
    if (c.way == Way::drop) {
      peer.connection.reset();
    } else {
      peer.connection->cancel();
      if (c.way == Way::cancelTwice) peer.connection->cancel();
    }
    if (c.peerReads) {
      EXPECT_EQ(client.read().opcode, kText);
      EXPECT_EQ(client.read(), closeFrame(1001));
      client.send(wire(0x88, closeFrame(1001).payload));
      EXPECT_EQ(client.read().opcode, kEnd);
      client.close();
    } else {
      server.peer(n, c.reports.size());
      EXPECT_TRUE(client.readToEnd().isOver());
    }
    server.peer(n, c.reports.size());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1500ms);
    auto reports = server.reportsOf(n++);
    std::sort(reports.begin(), reports.end());
    EXPECT_EQ(reports, c.reports);
  }
}

TEST(WebSocketTransport, ATakenPortFailsBeforeReadyAndAFreedOneServesAgain) {
  Server first;
  asio::io_context context;
  const auto transport = makeWebSocketTransport(context.get_executor());
  EXPECT_FALSE(transport->acceptsPort(0));
  std::vector<std::size_t> states;
  error_code failure;
  const auto onState = [&](const TransportState& state) {
    states.push_back(state.index());
    if (const auto* failed = std::get_if<TransportFailed>(&state)) failure = failed->error;
  };
  auto listener = transport->makeListener(first.port).value();
  listener->start(onState, [](auto) {});
  context.run();
  EXPECT_EQ(states, std::vector<std::size_t>{1});
  EXPECT_EQ(failure, asio::error::address_in_use);

  auto client = RawClient::upgraded(first.port);
  first.listener().cancel();
  ASSERT_TRUE(first.eventually([&] { return first.listenerReports.size() == 2; }));
  EXPECT_EQ(first.listenerReports[1], "cancelled");
  listener = transport->makeListener(first.port).value();
  listener->start(onState, [](auto) {});
  context.restart();
  context.run_for(50ms);
  EXPECT_EQ(states, (std::vector<std::size_t>{1, 0}));
  first.peer(0).connection->send(TextFrame::copyOf("connections live on"));
  EXPECT_EQ(client.read(), (Frame{kText, "connections live on"}));
}

// The server of the next test: a process of its own that may hold only three descriptors more than
// listening needs. Reports its CPU time in milliseconds at the end.
[[noreturn]] void serveShortOfDescriptors(std::uint16_t port, int reportsTo) {
  asio::io_context context;
  const auto transport = makeWebSocketTransport(context.get_executor());
  const auto listener = transport->makeListener(port).value();
  std::vector<std::shared_ptr<WebSocketConnection>> connections;
  auto receive = [](std::shared_ptr<WebSocketConnection> connection) -> asio::awaitable<void> {
    while (true) {
      const auto message = co_await connection->receive();
      if (!message) co_return;
    }
  };
  const auto accept = [&](std::shared_ptr<WebSocketConnection> connection) {
    connections.push_back(connection);
    const auto onState = [&context, &receive, weak = std::weak_ptr(connection)](const auto& state) {
      if (state.index() == 0) asio::co_spawn(context, receive(weak.lock()), asio::detached);
    };
    connection->start(onState, [](const error_code&) {});
  };
  listener->start([](const TransportState&) {}, accept);
  context.run_for(50ms);
  const int next = ::dup(0);
  ::close(next);
  const auto most = static_cast<rlim_t>(next) + 3;
  const rlimit limit{most, most};
  bool ok = ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && ::write(reportsTo, "r", 1) == 1;
  context.run_for(1200ms);
  rusage used{};
  ::getrusage(RUSAGE_SELF, &used);
  const auto cpu = (used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1000 +
                   (used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1000;
  ok = ok && ::write(reportsTo, &cpu, sizeof cpu) == sizeof cpu;
  ::_exit(ok ? 0 : 1);
}

// Accepting again at once would fail at once: a million times a second, and nothing else runs.
TEST(WebSocketTransport, AcceptingWaitsWhenDescriptorsRunOut) {
  const auto port = freePort();
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  const pid_t child = ::fork();
  if (child == 0) serveShortOfDescriptors(port, pipe[1]);
  ::close(pipe[1]);
  char ready = 0;
  ASSERT_EQ(::read(pipe[0], &ready, 1), 1);
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 6; ++i) {
    clients.push_back(std::make_unique<RawClient>(port));
    clients.back()->send(RawClient::kUpgrade);
  }
  EXPECT_EQ(clients[2]->readHead().substr(0, 12), "HTTP/1.1 101");
  std::this_thread::sleep_for(300ms);
  clients.erase(clients.begin(), clients.begin() + 3);
  EXPECT_EQ(clients[2]->readHead().substr(0, 12), "HTTP/1.1 101");
  long cpu = -1;  // milliseconds of some 1300
  EXPECT_EQ(::read(pipe[0], &cpu, sizeof cpu), static_cast<ssize_t>(sizeof cpu));
  EXPECT_LT(cpu, 200);
  ::close(pipe[0]);
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

TEST(WebSocketClient, TellsHowItEnded) {
  EXPECT_EQ(WebSocketClient::connect("127.0.0.1", freePort()).error(),
            asio::error::connection_refused);
  Server server;
  for (const char* host : {"::1", "127.0.0.1"}) {
    SCOPED_TRACE(host);
    auto client = WebSocketClient::connect(host, server.port).value();
    EXPECT_EQ(client.receive().value().data, "early");
    EXPECT_EQ(client.receive(20ms).error(), WebSocketClientError::timedOut);
    ASSERT_TRUE(client.sendText("hello"));
    const auto n = server.peers.size() - 1;
    EXPECT_EQ(server.peer(n, 2).reports[1], "< hello");
    server.peers[n]->connection->send(TextFrame::copyOf("late"));
    EXPECT_EQ(client.receive().value().data, "late");
    EXPECT_EQ(client.closeCode(), 0);
    server.peers[n]->connection->cancel();
    EXPECT_EQ(client.receive().error(), WebSocketClientError::closed);
    EXPECT_EQ(client.closeCode(), 1001);
  }
  auto client = WebSocketClient::connect("localhost", server.port).value();
  EXPECT_TRUE(client.close());
}

}  // namespace
}  // namespace tarnlink
