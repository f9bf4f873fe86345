#include "websocket/websocket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/websocket/websocket_fixtures.h"
#include "websocket/connection_stream.h"
#include "websocket/websocket_client.h"

namespace tarnlink::test {
namespace {

TEST(WebSocketTransport, PongsGoBetweenWholeFramesAndNothingIsLost) {
  constexpr int kFrames = 3000;
  Server server;
  auto client = RawClient::upgraded(server.port, 4096);
  auto& connection = *server.peer(0).connection;
  std::thread sender([&] {
    const auto frame = [](int i) {
      return TextFrame::copyOf(std::to_string(i) + ":" + std::string(i % 1500, 'x'));
    };
    std::vector<SharedTextFrame> burst;
    for (int i = 0; i < kFrames; i += 100) {
      connection.send(frame(i));
      burst.clear();
      for (int k = 1; k < 100; ++k) burst.push_back(frame(i + k));
      connection.sendBurst(burst);
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
    for (std::size_t n = 0; n < server.peerCount(); ++n) server.peer(n).connection->send(frame);
    ASSERT_EQ(reader.read().payload.size(), std::size_t{64 << 10});
  }
  const auto full = make_error_code(WebSocketError::sendQueueFull).message();
  auto reports = server.reportsOf(0, 3);
  std::sort(reports.begin(), reports.end());
  EXPECT_EQ(reports, (std::vector<std::string>{"end: " + full, "failed: " + full, "ready"}));
  server.peer(1).connection->send(TextFrame::copyOf("still here"));
  EXPECT_EQ(reader.read(), (Frame{kText, "still here"}));
}

// Their octets would take 30 kB, but what waits takes far more than a megabyte of memory.
TEST(WebSocketTransport, SmallFramesFillTheQueueByTheirMemory) {
  WebSocketLimits limits;
  limits.sendQueue = 1 << 20;
  Server server(limits);
  RawClient silent(server.port);  // without its upgrade, frames wait
  Peer& peer = server.peer(0, 0);
  for (int i = 0; i < 10'000; ++i) peer.connection->send(frameOf(1));
  EXPECT_EQ(server.reportsOf(0)[0],
            "failed: " + make_error_code(WebSocketError::sendQueueFull).message());
}

TEST(WebSocketTransport, NoTextFollowsTheCloseOfThePeer) {
  Server server;
  auto client = RawClient::upgraded(server.port, 4096);
  auto& connection = *server.peer(0).connection;
  std::vector<SharedTextFrame> events(100, frameOf(256 << 10));
  connection.sendBurst(events);  // Unread answers would keep the close frame from being read.
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
  for (std::size_t n = 0; n < 3; ++n) EXPECT_EQ(server.reportsOf(n)[0], failure);
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
  auto reports = server.reportsOf(0, 3);
  std::sort(reports.begin(), reports.end());
  EXPECT_EQ(reports, (std::vector<std::string>{"end: " + idle, "failed: " + idle, "ready"}));
  EXPECT_EQ(server.reportsOf(1).size(), 1u);
}

TEST(WebSocketTransport, AClientWhoseMessagesNobodyTakesIsNotIdle) {
  WebSocketLimits limits;
  limits.idle = 100ms;
  Server server(limits, Server::Messages::leftUnread);
  auto client = RawClient::upgraded(server.port);
  server.peer(0);
  std::this_thread::sleep_for(400ms);
  server.peer(0).connection->send(TextFrame::copyOf("alive"));
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
  Server server({}, Server::Messages::leftUnread);
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
    EXPECT_LT(std::chrono::steady_clock::now() - before, 3s);
    auto reports = server.reportsOf(n++);
    std::sort(reports.begin(), reports.end());
    EXPECT_EQ(reports, c.reports);
  }
}

// A command may take a minute: an attempt to pair that waits for its turn, or a person at a prompt.
TEST(WebSocketTransport, APeerIsHeardWhileItsMessageIsServed) {
  using Leave = void (*)(RawClient&);
  const struct {
    const char* name;
    Leave leave;
    std::string lost;
  } cases[] = {
      {"FIN", [](RawClient& client) { client.finish(); }, "End of file"},
      {"reset", [](RawClient& client) { client.reset(); }, "Connection reset by peer"},
      {"close frame", [](RawClient& client) { client.send(wire(0x88, closeFrame(1000).payload)); },
       make_error_code(WebSocketError::peerClosed).message()},
  };
  Server server({}, Server::Messages::leftUnread);
  std::size_t n = 0;
  for (const auto& [name, leave, lost] : cases) {
    SCOPED_TRACE(name);
    auto client = RawClient::upgraded(server.port);
    client.send(wire(0x81, "takes long") + wire(0x81, "next") + wire(0x81, "last") +
                wire(0x89, "there?"));
    EXPECT_EQ(server.take(n), "takes long");
    EXPECT_EQ(client.read(), (Frame{kPong, "there?"}));
    EXPECT_EQ(server.take(n), "next");
    EXPECT_EQ(server.take(n), "last");
    client.send(wire(0x81, "for nobody"));
    leave(client);
    EXPECT_EQ(server.reportsOf(n, 2)[1], "lost: " + lost);
    EXPECT_EQ(server.take(n), "end: " + lost);
    ++n;
  }
}

TEST(WebSocketTransport, NothingIsReadAheadOfMessagesThatAreServedQuickly) {
  Server server({}, Server::Messages::leftUnread);
  auto client = RawClient::upgraded(server.port);
  client.send(wire(0x81, "1") + wire(0x81, "2") + wire(0x88, closeFrame(1000).payload));
  for (const char* text : {"1", "2"}) {
    EXPECT_EQ(server.take(0), text);
    // Longer than a fifth of a second in all, but neither of them.
    std::this_thread::sleep_for(text == std::string("1") ? 60ms : 160ms);
    server.peer(0).connection->send(TextFrame::copyOf(text));
    EXPECT_EQ(client.read(), (Frame{kText, text}));
  }
}

// Else a second small message waits until the peer has acknowledged the first (RFC 896).
TEST(WebSocketTransport, SmallMessagesLeaveAtOnce) {
  Server server;
  const auto client = RawClient::upgraded(server.port);
  int delaying = 0;
  int connections = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int socket = std::stoi(entry.path().filename());
    sockaddr_in6 local{};
    socklen_t size = sizeof local;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&local), &size) != 0) continue;
    sockaddr_in6 remote{};
    socklen_t remoteSize = sizeof remote;
    const bool isConnected =
        ::getpeername(socket, reinterpret_cast<sockaddr*>(&remote), &remoteSize) == 0;
    if (!isConnected || ntohs(local.sin6_port) != server.port) continue;
    ++connections;
    int noDelay = 0;
    socklen_t optionSize = sizeof noDelay;
    ::getsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &noDelay, &optionSize);
    delaying += noDelay == 0 ? 1 : 0;
  }
  EXPECT_EQ(connections, 1);
  EXPECT_EQ(delaying, 0);
}

// A write failed and closed the socket while the peer's close frame had already been read: the
// answer that never ended kept its connection, and the server's stop(), waiting for ever.
TEST(WebSocketTransport, AnAnswerOntoAClosedSocketFails) {
  using boost::asio::ip::tcp;
  boost::asio::io_context io;
  tcp::acceptor acceptor(io, {boost::asio::ip::address_v4::loopback(), 0});
  tcp::socket peer(io);
  peer.connect(acceptor.local_endpoint());
  struct Ignoring final : ConnectionStream::Owner {
    void onWriteFailed(const error_code&) override {}
    void onCloseQueued() override {}
    void onAnswersSent() override {}
    std::shared_ptr<void> keepAlive() override { return nullptr; }
  } owner;
  ConnectionStream stream(acceptor.accept(), 1 << 20, nullptr, owner);
  stream.open();
  stream.close(false);
  std::optional<boost::system::error_code> end;
  stream.async_write_some(boost::asio::buffer("\x88\x00", 2),
                          [&](const auto& error, std::size_t) { end = error; });
  EXPECT_FALSE(end) << "completed inside the call that began it";
  io.run_for(std::chrono::seconds(1));
  EXPECT_EQ(end, boost::asio::error::operation_aborted);
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
    const auto n = server.peerCount() - 1;
    EXPECT_EQ(server.reportsOf(n, 2)[1], "< hello");
    server.peer(n).connection->send(TextFrame::copyOf("late"));
    EXPECT_EQ(client.receive().value().data, "late");
    EXPECT_EQ(client.closeCode(), 0);
    server.peer(n).connection->cancel();
    EXPECT_EQ(client.receive().error(), WebSocketClientError::closed);
    EXPECT_EQ(client.closeCode(), 1001);
  }
  auto client = WebSocketClient::connect("localhost", server.port).value();
  EXPECT_TRUE(client.close());
}

}  // namespace
}  // namespace tarnlink::test
