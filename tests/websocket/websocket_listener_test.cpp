// Which connections are taken, and how many.
#include <netinet/tcp.h>

#include "tests/websocket/websocket_fixtures.h"
#include "websocket/websocket_client.h"

namespace tarnlink::test {
namespace {

TEST(WebSocketListener, ClientsBeyondTheAllowedNumberAreRefusedAlone) {
  WebSocketAccess access;
  access.maxClients = 2;
  Server server({}, Server::Messages::recorded, access);
  auto first = RawClient::upgraded(server.port);
  RawClient silent(server.port);  // Counts although it does not even ask.
  server.reportsOf(0);
  std::vector<std::unique_ptr<RawClient>> refused;
  for (int i = 0; i < 50; ++i) refused.push_back(std::make_unique<RawClient>(server.port));
  EXPECT_TRUE(refused.back()->read().isOver()) << "closed at once: too many wait";
  refused.front()->send(RawClient::kUpgrade);
  EXPECT_EQ(refused.front()->readStatus(), "503");
  refused.clear();
  first.send(wire(0x81, "fine"));
  EXPECT_EQ(server.reportsOf(0, 2)[1], "< fine");
  silent.close();
  // Its place is free as soon as the server has seen it go.
  bool isFree = false;
  for (int i = 0; i < 100 && !isFree; ++i) {
    std::this_thread::sleep_for(20ms);
    isFree = WebSocketClient::connect("127.0.0.1", server.port).has_value();
  }
  EXPECT_TRUE(isFree);
}

// More would be open than are allowed, without an end.
TEST(WebSocketListener, WhoeverMakesRoomIsClosedWhateverItDoesThen) {
  WebSocketAccess access;
  access.maxClients = 8;
  asio::io_context context;
  const auto transport = makeWebSocketTransport(context.get_executor(), {}, access);
  const auto port = freePort();
  const auto listener = transport->makeListener(port).value();
  std::vector<std::shared_ptr<WebSocketConnection>> accepted;
  std::vector<std::string> failures;
  const auto start = [&](std::size_t n) {
    const auto onState = [&](const TransportState& state) {
      const auto* failed = std::get_if<TransportFailed>(&state);
      failures.push_back(failed != nullptr ? failed->error.message() : "no failure");
    };
    accepted.at(n)->start(onState, [](const error_code&) {});
  };
  listener->start([](const auto&) {}, [&](auto made) { accepted.push_back(std::move(made)); });
  const auto settle = [&] {
    context.restart();
    context.run_for(50ms);
  };
  settle();
  RawClient notStarted(port);
  RawClient refused(port);
  refused.send("GET / HTTP/1.1\r\n\r\n");
  settle();
  start(1);
  settle();
  EXPECT_EQ(refused.readStatus(), "400");  // And is not closed by its peer.
  ASSERT_EQ(connectionsTo(port).size(), 2u);
  // Else a second small message waits until the peer has acknowledged the first (RFC 896).
  int noDelay = 0;
  socklen_t size = sizeof noDelay;
  ::getsockopt(connectionsTo(port)[0], IPPROTO_TCP, TCP_NODELAY, &noDelay, &size);
  EXPECT_NE(noDelay, 0);
  std::vector<std::unique_ptr<RawClient>> newcomers;
  for (int i = 0; i < 2; ++i) newcomers.push_back(std::make_unique<RawClient>(port));
  settle();
  EXPECT_EQ(connectionsTo(port).size(), 2u) << "the newcomers' alone";
  start(0);
  settle();
  EXPECT_EQ(failures.at(1), make_error_code(WebSocketError::madeRoom).message());
}

TEST(WebSocketListener, ATakenPortFailsBeforeReadyAndAFreedOneServesAgain) {
  Server first;
  auto client = RawClient::upgraded(first.port);
  asio::io_context context;
  const auto transport = makeWebSocketTransport(context.get_executor());
  EXPECT_FALSE(transport->acceptsPort(0));
  std::vector<TransportState> states;
  const auto listen = [&] {
    const auto listener = transport->makeListener(first.port).value();
    listener->start([&](const TransportState& state) { states.push_back(state); }, [](auto) {});
    context.restart();
    context.run_for(50ms);
  };
  listen();
  ASSERT_EQ(states.size(), 1u);
  EXPECT_EQ(std::get<TransportFailed>(states[0]).error, asio::error::address_in_use);
  first.listener().cancel();
  ASSERT_TRUE(first.eventually([&] { return first.listenerReports.size() == 2; }));
  EXPECT_EQ(first.listenerReports[1], "cancelled");
  listen();
  ASSERT_EQ(states.size(), 2u);
  EXPECT_TRUE(std::holds_alternative<TransportReady>(states[1]));
  first[0]->send(TextFrame::copyOf("connections live on"));
  EXPECT_EQ(client.read(), (Frame{kText, "connections live on"}));
}

}  // namespace
}  // namespace tarnlink::test
