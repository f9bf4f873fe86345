// One connection from its upgrade to its end, with TLS and without.
#include "tests/websocket/websocket_fixtures.h"
#include "websocket/websocket_client.h"

namespace tarnlink::test {
namespace {

class Session : public ::testing::TestWithParam<bool> {
 protected:
  Session() { isTls = GetParam(); }
  ~Session() override { isTls = false; }
};
INSTANTIATE_TEST_SUITE_P(Plain, Session, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Tls, Session, ::testing::Values(true));

std::string failure(WebSocketError error) {
  return "failed: " + make_error_code(error).message();
}

// Octets of both sizes: records of TLS that they fill, and that they do not.
TEST_P(Session, PongsGoBetweenWholeFramesAndNothingIsLost) {
  constexpr int kFrames = 20'000;
  Server server;
  auto client = RawClient::upgraded(server.port, 4096);
  auto& connection = *server[0];
  const auto textOf = [](int i) {
    return std::to_string(i) + ":" + std::string(i % 1000 == 0 ? 60'000 : i % 150, 'x');
  };
  std::thread sender([&] {
    std::vector<SharedTextFrame> burst;
    for (int i = 0; i < kFrames; i += 1000) {
      connection.send(TextFrame::copyOf(textOf(i)));
      burst.clear();
      for (int k = 1; k < 1000; ++k) burst.push_back(TextFrame::copyOf(textOf(i + k)));
      connection.sendBurst(burst);
    }
  });
  int pongs = 0;
  for (int i = 0; i < kFrames;) {
    if (i % 1000 == 0) client.send(wire(0x80 | kPing, std::to_string(i)));
    const auto frame = client.read();
    if (frame.opcode == kPong) {
      ++pongs;
      continue;
    }
    ASSERT_EQ(frame, (Frame{kText, textOf(i)}));
    ++i;
  }
  sender.join();
  while (pongs < kFrames / 1000 && client.read().opcode == kPong) ++pongs;
  EXPECT_GE(pongs, kFrames / 1000);
}

TEST_P(Session, AClientThatDoesNotReadIsDroppedAlone) {
  WebSocketLimits limits;
  limits.sendQueue = 1 << 20;
  Server server(limits);
  auto stuck = RawClient::upgraded(server.port, 4096);
  auto& stuckPeer = *server[0];
  auto reader = RawClient::upgraded(server.port);
  auto& readingPeer = *server[1];
  const auto frame = frameOf(64 << 10);
  for (int sent = 0; sent < 2000 && server.reportsOf(0).size() == 1; ++sent) {
    for (auto* connection : {&stuckPeer, &readingPeer}) connection->send(frame);
    ASSERT_EQ(reader.read().payload.size(), std::size_t{64 << 10});
  }
  const auto full = make_error_code(WebSocketError::sendQueueFull).message();
  EXPECT_EQ(server.sortedReportsOf(0, 3),
            (std::vector<std::string>{"end: " + full, "failed: " + full, "ready"}));
  readingPeer.send(TextFrame::copyOf("still here"));
  EXPECT_EQ(reader.read(), (Frame{kText, "still here"}));
  EXPECT_EQ(stuck.readPastTexts().first.opcode, kReset) << "what was sent last is missing";
}

// A record of TLS that waits for the socket is encrypted already: it cannot be forgotten.
TEST_P(Session, NoTextFollowsTheCloseOfThePeer) {
  for (const int size : {100, 256 << 10}) {
    const int count = (25 << 20) / (size + 10);
    Server server;
    auto client = RawClient::upgraded(server.port, 4096);
    auto& connection = *server[0];
    std::vector<SharedTextFrame> events(count, frameOf(size));
    connection.sendBurst(events);  // Unread answers would keep the close frame from being read.
    std::this_thread::sleep_for(50ms);
    client.send(wire(0x88, closeFrame(1000).payload));
    std::this_thread::sleep_for(50ms);
    connection.send(frameOf(10));
    const auto [frame, texts] = client.readPastTexts();
    EXPECT_LT(texts, count);
    EXPECT_EQ(frame, closeFrame(1000));
    EXPECT_EQ(client.read().opcode, kEnd);
  }
}

// Unread answers would keep the message from being read, events do not.
TEST_P(Session, APeerThatReadsOnlyAfterItsLongMessageLearnsWhy) {
  Server server;
  auto client = RawClient::upgraded(server.port, 4096);
  std::vector<SharedTextFrame> events(100, frameOf(256 << 10));
  server[0]->sendBurst(events);
  client.send(wire(0x81, std::string(12'000'000, 'a')));
  const auto [frame, texts] = client.readPastTexts();
  EXPECT_LT(texts, 100);  // what the socket would not take does not hold up the answer
  EXPECT_EQ(frame, closeFrame(1009));
  EXPECT_EQ(client.read().opcode, kEnd);
}

TEST_P(Session, EndingByTheOwner) {
  enum class Way { cancel, cancelTwice, drop };
  const struct {
    const char* name;
    Way way;
    bool peerReads;
    std::vector<std::string> reports;
  } cases[] = {
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
    auto& connection = server[n];
    for (int i = 0; i < (c.peerReads ? 1 : 100); ++i) connection->send(frameOf(256 << 10));
    const auto before = std::chrono::steady_clock::now();
    if (c.way != Way::drop) connection->cancel();
    if (c.way == Way::cancelTwice) connection->cancel();
    if (c.way == Way::drop) connection.reset();
    if (c.peerReads) {
      EXPECT_EQ(client.read().opcode, kText);
      EXPECT_EQ(client.read(), closeFrame(1001));
      client.send(wire(0x88, closeFrame(1001).payload));
      EXPECT_EQ(client.read().opcode, kEnd);
      client.close();
    } else {
      server.reportsOf(n, c.reports.size());
      EXPECT_TRUE(client.readPastTexts().first.isOver());
    }
    EXPECT_EQ(server.sortedReportsOf(n++, c.reports.size()), c.reports);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 3s);
  }
}

// A command may take a minute: an attempt to pair that waits, or a person at a prompt.
TEST_P(Session, APeerIsHeardWhileItsMessageIsServed) {
  const struct {
    const char* name;
    void (*leave)(RawClient&);
    std::string lost;
  } cases[] = {
      {"its end", [](RawClient& client) { client.finish(); }, "End of file"},
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
    EXPECT_EQ(server.take(n++), "end: " + lost);
  }
}

TEST_P(Session, UnfinishedHandshakesAreDropped) {
  WebSocketLimits limits;
  limits.handshake = 200ms;
  Server server(limits);
  RawClient half(server.port);
  half.send("GET / HTTP/1.1\r\nHo");
  isTls = false;
  RawClient silent(server.port);
  RawClient plain(server.port);
  plain.send(RawClient::kUpgrade);
  for (auto* client : {&silent, &half}) EXPECT_TRUE(client->read().isOver());
  for (std::size_t n = 0; n < 2; ++n) {
    EXPECT_EQ(server.reportsOf(n)[0], failure(WebSocketError::handshakeTimeout));
  }
  EXPECT_EQ(plain.readStatus() == "101", !GetParam());
}

TEST(SessionAlone, NothingIsReadAheadOfMessagesThatAreServedQuickly) {
  Server server({}, Server::Messages::leftUnread);
  auto client = RawClient::upgraded(server.port);
  client.send(wire(0x81, "1") + wire(0x81, "2") + wire(0x88, closeFrame(1000).payload));
  for (const char* text : {"1", "2"}) {
    EXPECT_EQ(server.take(0), text);
    // Longer than a fifth of a second in all, but neither of them.
    std::this_thread::sleep_for(text == std::string("1") ? 60ms : 160ms);
    server[0]->send(TextFrame::copyOf(text));
    EXPECT_EQ(client.read(), (Frame{kText, text}));
  }
}

TEST(SessionAlone, OnlySilentConnectionsGoIdle) {
  WebSocketLimits limits;
  limits.idle = 300ms;
  Server server(limits);
  auto silent = RawClient::upgraded(server.port);
  auto answering = RawClient::upgraded(server.port);
  Server busy(limits, Server::Messages::leftUnread);
  auto unheard = RawClient::upgraded(busy.port);
  // The first takes long, and the second is all that is read ahead.
  unheard.send(wire(0x81, "first") + wire(0x81, std::string(70'000, 'a')));
  EXPECT_EQ(busy.take(0), "first");
  for (int i = 0; i < 6; ++i) {
    ASSERT_EQ(answering.read(), (Frame{kPing, ""}));
    answering.send(wire(0x80 | kPong, ""));
  }
  EXPECT_EQ(silent.read(), (Frame{kPing, ""}));
  EXPECT_EQ(silent.read().opcode, kReset);
  const auto idle = make_error_code(WebSocketError::idleTimeout).message();
  EXPECT_EQ(server.sortedReportsOf(0, 3),
            (std::vector<std::string>{"end: " + idle, "failed: " + idle, "ready"}));
  EXPECT_EQ(server.reportsOf(1).size(), 1u);

  busy[0]->send(TextFrame::copyOf("alive"));
  EXPECT_EQ(unheard.read(), (Frame{kText, "alive"}));
}

TEST(SessionAlone, StrangersSayLittleAndHaveLittleTime) {
  WebSocketLimits limits;
  limits.strangerTime = 500ms;
  Server server(limits, Server::Messages::recorded, {}, Standing::stranger);
  const auto longest = std::string(limits.strangerMessage, 'a');
  auto stranger = RawClient::upgraded(server.port);
  stranger.send(wire(0x81, longest));
  EXPECT_EQ(server.reportsOf(0, 2)[1], "< " + longest.substr(0, 80));
  auto talkative = RawClient::upgraded(server.port);
  talkative.send(wire(0x81, longest + "a"));
  EXPECT_EQ(talkative.read(), closeFrame(1009));
  auto admitted = RawClient::upgraded(server.port);
  server[2]->setStanding(Standing::admitted);
  server[2]->send(TextFrame::copyOf("welcome"));
  EXPECT_EQ(admitted.read().payload, "welcome");
  EXPECT_TRUE(stranger.readPastTexts().first.isOver());
  EXPECT_EQ(server.sortedReportsOf(0, 4)[2], failure(WebSocketError::notAdmitted));
  admitted.send(wire(0x81, longest + "a"));
  EXPECT_EQ(server.reportsOf(2, 2)[1], "< " + longest.substr(0, 80));
}

// Each unread answer takes memory here, and asking costs the peer next to nothing.
TEST(SessionAlone, UnreadAnswersStopTheReadingOfCommands) {
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
}

TEST(WebSocketClient, TellsHowItEnded) {
  EXPECT_EQ(WebSocketClient::connect("127.0.0.1", freePort()).error(),
            asio::error::connection_refused);
  Server server;
  std::size_t n = 0;
  for (const char* host : {"::1", "127.0.0.1", "localhost"}) {
    SCOPED_TRACE(host);
    auto client = WebSocketClient::connect(host, server.port).value();
    EXPECT_EQ(client.receive().value().data, "early");
    EXPECT_EQ(client.receive(20ms).error(), WebSocketClientError::timedOut);
    ASSERT_TRUE(client.sendText("hello"));
    EXPECT_EQ(server.reportsOf(n, 2)[1], "< hello");
    server[n]->send(TextFrame::copyOf("late"));
    EXPECT_EQ(client.receive().value().data, "late");
    if (n == 0) {
      EXPECT_TRUE(client.close());
    } else {
      server[n]->cancel();
      EXPECT_EQ(client.receive().error(), WebSocketClientError::closed);
      EXPECT_EQ(client.closeCode(), 1001);
    }
    ++n;
  }
}

}  // namespace
}  // namespace tarnlink::test
