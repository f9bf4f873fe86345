// What a peer gets before it is admitted, and what one that does not read can cost.
#include <gtest/gtest.h>
#include <malloc.h>

#include <thread>

#include "tests/websocket/websocket_fixtures.h"

namespace tarnlink::test {
namespace {

std::string failure(WebSocketError error) {
  return "failed: " + make_error_code(error).message();
}

Server strangers(WebSocketLimits limits = {}, WebSocketAccess access = {}) {
  return Server(limits, Server::Messages::recorded, std::move(access), Standing::stranger);
}

TEST(WebSocketStrangers, LongMessagesAreForTheAdmitted) {
  Server server = strangers();
  const auto longest = std::string(4096, 'a');
  auto stranger = RawClient::upgraded(server.port);
  stranger.send(wire(0x81, longest));
  EXPECT_EQ(server.reportsOf(0, 2)[1], "< " + longest.substr(0, 80));
  stranger.send(wire(0x81, longest + "a"));
  EXPECT_EQ(stranger.read(), closeFrame(1009));

  auto admitted = RawClient::upgraded(server.port);
  server.peer(1).connection->setStanding(Standing::admitted);
  server.peer(1).connection->send(TextFrame::copyOf("welcome"));
  EXPECT_EQ(admitted.read().payload, "welcome");
  admitted.send(wire(0x81, longest + "a"));
  EXPECT_EQ(server.reportsOf(1, 2)[1], "< " + longest.substr(0, 80));
}

TEST(WebSocketStrangers, HaveLimitedTimeToBeAdmitted) {
  WebSocketLimits limits;
  limits.strangerTime = 500ms;
  Server server = strangers(limits);
  std::vector<RawClient> clients;
  for (int i = 0; i < 4; ++i) clients.push_back(RawClient::upgraded(server.port));
  enum { stranger, waiting, returning, admitted };
  std::this_thread::sleep_for(300ms);
  server.peer(waiting).connection->setStanding(Standing::waiting);
  server.peer(returning).connection->setStanding(Standing::waiting);
  server.peer(admitted).connection->setStanding(Standing::admitted);
  EXPECT_TRUE(clients[stranger].readToEnd().isOver());
  EXPECT_EQ(server.reportsOf(stranger, 2)[1], failure(WebSocketError::notAdmitted));
  std::this_thread::sleep_for(400ms);  // That long it had waited, and has 200 ms left.
  const auto back = std::chrono::steady_clock::now();
  server.peer(returning).connection->setStanding(Standing::stranger);
  EXPECT_TRUE(clients[returning].readToEnd().isOver());
  const auto left = std::chrono::steady_clock::now() - back;
  EXPECT_GT(left, 50ms);
  EXPECT_LT(left, 450ms);
  for (const auto n : {waiting, admitted}) {
    clients[n].send(wire(0x81, "here"));
    EXPECT_EQ(server.reportsOf(n, 2)[1], "< here");
  }
}

TEST(WebSocketStrangers, TheOldestMakesRoom) {
  WebSocketAccess access;
  access.maxClients = 8;
  Server server = strangers({}, access);
  auto oldest = RawClient::upgraded(server.port);
  auto second = RawClient::upgraded(server.port);
  auto third = RawClient::upgraded(server.port);
  EXPECT_TRUE(oldest.read().isOver());
  EXPECT_EQ(server.reportsOf(0, 2)[1], failure(WebSocketError::madeRoom));
  second.send(wire(0x81, "here"));
  EXPECT_EQ(server.reportsOf(1, 2)[1], "< here");
}

// In all arenas, and mapped. Octets.
std::size_t allocated() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST(WebSocketStrangers, BuffersGrowWithWhatArrives) {
  Server server;
  const auto promise = wire(0x81, std::string(1 << 20, 'a')).substr(0, 15);
  std::vector<RawClient> clients;
  for (int i = 0; i < 16; ++i) clients.push_back(RawClient::upgraded(server.port));
  const auto before = allocated();
  for (auto& client : clients) client.send(promise + "");
  std::this_thread::sleep_for(200ms);
  EXPECT_LT(allocated(), before + clients.size() * (64 << 10));
}

// Each unread answer takes memory here, and asking costs the peer next to nothing.
TEST(WebSocketStrangers, UnreadAnswersStopTheReadingOfCommands) {
  constexpr std::size_t kCommands = 20'000;
  const std::string command(1'000, 'c');
  Server server({}, Server::Messages::echoed);
  auto client = RawClient::upgraded(server.port, 4096);
  std::thread sender([&] {
    for (std::size_t i = 0; i < kCommands; ++i) client.send(wire(0x81, command));
  });
  std::size_t taken = 0;
  for (std::size_t now = 1; now != taken; now = server.reportsOf(0).size()) {
    taken = now;
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_LT(taken, kCommands / 2);
  for (std::size_t i = 0; i < kCommands; ++i) ASSERT_EQ(client.read(), (Frame{kText, command}));
  sender.join();
  EXPECT_EQ(server.reportsOf(0, kCommands + 1).size(), kCommands + 1);
}

TEST(WebSocketStrangers, UnreadEventsDoNot) {
  Server server;
  auto client = RawClient::upgraded(server.port, 4096);
  auto& peer = server.peer(0);
  std::vector<SharedTextFrame> events(100, frameOf(256 << 10));
  peer.connection->sendBurst(events);
  // The first is being waited for when the events come.
  client.send(wire(0x81, "unsubscribe") + wire(0x81, "and again"));
  server.peer(0, 3);
  EXPECT_EQ(server.reportsOf(0)[2], "< and again");
}

}  // namespace
}  // namespace tarnlink::test
