// What our own code answers for of RFC 6455: the library does the rest, and is trusted with it.
#include <gtest/gtest.h>

#include "tests/websocket/websocket_fixtures.h"

namespace tarnlink::test {
namespace {

// First octets of frames, as on the wire: FIN and opcode (RFC 6455, 5.2).
constexpr int kFinText = 0x81;
constexpr int kFinBinary = 0x82;
constexpr int kFinContinuation = 0x80;
constexpr int kFinClose = 0x88;
constexpr int kFinPing = 0x89;
constexpr int kText0 = 0x01;  // without FIN
constexpr int kContinuation0 = 0x00;

constexpr std::size_t kMessageLimit = 70'000;  // octets

std::string text(const std::string& payload) {
  return wire(kFinText, payload);
}
std::string closing(const std::string& payload) {
  return wire(kFinClose, payload);
}
std::string closing(int code, const std::string& reason = {}) {
  return closing(closeFrame(code, reason).payload);
}
Frame echo(const std::string& payload) {
  return {kText, payload};
}

struct Case {
  std::string name;
  std::string sent;
  std::vector<Frame> answers;  // a close frame has to be the last octets before the orderly end
};

class WebSocketConformance : public ::testing::Test {
 protected:
  static WebSocketLimits limits() {
    WebSocketLimits limits;
    limits.incomingMessage = kMessageLimit;
    return limits;
  }

  void check(const std::vector<Case>& cases) const {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto client = RawClient::upgraded(server.port);
      client.send(c.sent);
      for (const auto& answer : c.answers) ASSERT_EQ(client.read(), answer);
      client.send(closing(1000));  // the server may wait for it
      if (c.answers.back().opcode != kClose) {
        ASSERT_EQ(client.read(), closeFrame(1000));
      }
      ASSERT_EQ(client.read().opcode, kEnd);
    }
  }

  Server server{limits(), Server::Messages::echoed};
};

TEST_F(WebSocketConformance, Messages) {
  std::vector<Case> cases;
  for (const std::size_t size : {0, 125, 126, 65'535, 65'536}) {
    std::string payload;
    for (std::size_t i = 0; i < size; ++i) payload += static_cast<char>('!' + i % 89);
    cases.push_back({std::to_string(size) + " octets", text(payload), {echo(payload)}});
  }
  const std::string most(kMessageLimit, 'a');
  cases.insert(cases.end(),
               {{"binary", wire(kFinBinary, "\xFF"), {echo("1 octets")}},
                {"pings between fragments",
                 wire(kText0, "a") + wire(kFinPing, "p") + wire(kContinuation0, "b") +
                     wire(kFinPing, "") + wire(kFinContinuation, "c") + text("d"),
                 {{kPong, "p"}, {kPong, ""}, echo("abc"), echo("d")}},
                {"close between fragments", wire(kText0, "a") + closing(1000), {closeFrame(1000)}},
                // What came before a fault is served, what follows is not.
                {"opcode 3",
                 text("before") + wire(0x83, "") + wire(kFinPing, "after"),
                 {echo("before"), closeFrame(1002)}},
                {"as long as allowed, twice", text(most) + text(most), {echo(most), echo(most)}},
                {"too long by its header", text(most + "a").substr(0, 14), {closeFrame(1009)}},
                {"far too long", text(std::string(8'000'000, 'a')), {closeFrame(1009)}}});
  check(cases);
}

TEST_F(WebSocketConformance, Utf8) {
  const auto failed = closeFrame(1007);
  std::vector<Case> cases = {{"overlong", text("\xC0\xAF") + text("x"), {failed}}};
  for (const std::string whole : {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x90\x80\x80"}) {
    for (std::size_t octets = 0; octets <= whole.size(); ++octets) {
      const auto cut = "a" + whole.substr(0, octets);
      const bool isWhole = octets == 0 || octets == whole.size();
      cases.push_back({std::to_string(octets) + " of " + std::to_string(whole.size()),
                       wire(kText0, cut) + wire(kFinContinuation, ""),
                       {isWhole ? echo(cut) : failed}});
    }
  }
  check(cases);
}

TEST_F(WebSocketConformance, Closing) {
  std::vector<Case> cases;
  for (const int code : {1000, 3000, 4999}) {
    // RFC 6455, 5.5.1: the answer echoes the code. Nothing after it is of interest.
    cases.push_back({"code " + std::to_string(code),
                     closing(code, "why") + wire(kFinPing, "late") + text("later") + closing(code),
                     {closeFrame(code)}});
  }
  // RFC 6455, 7.4: not to be sent, or without a meaning.
  for (const int code : {1005, 5000, 65535}) {
    cases.push_back({"code " + std::to_string(code), closing(code), {closeFrame(1002)}});
  }
  cases.push_back({"no code", closing(std::string()), {closeFrame(1000)}});
  cases.push_back({"garbage behind", closing(1000) + "\xFFgarbage", {closeFrame(1000)}});
  check(cases);
}

TEST_F(WebSocketConformance, BothEndsCloseAtOnce) {
  auto client = RawClient::upgraded(server.port);
  server[0]->cancel();
  client.send(closing(3001));
  EXPECT_EQ(client.read().opcode, kClose);
  EXPECT_EQ(client.read().opcode, kEnd);
}

// Whoever runs the bridge reads in a refusal's report what to give to which option.
TEST(WebSocketHandshake, Answers) {
  WebSocketAccess access;
  access.rules.origins.push_back(OriginPattern::parse("http://elsewhere").value());
  Server server({}, Server::Messages::recorded, access);
  const auto with = [](const std::string& from, const std::string& to) {
    auto request = RawClient::kUpgrade;
    return request.replace(request.find(from), from.size(), to);
  };
  const struct {
    const char* name;
    std::string request;
    std::string answer;
  } cases[] = {
      {"Connection in two lines, other cases",
       with("Upgrade: websocket\r\nConnection: Upgrade",
            "UPGRADE: WebSocket\r\nconnection: keep-alive\r\nConnection: upgrade"),
       "101"},
      {"body", with("Host: x", "Host: x\r\nContent-Length: 5") + "abcde", "400"},
      {"page load", "GET / HTTP/1.1\r\nHost: x\r\n\r\n", "400"},
      {"no Upgrade", with("Upgrade: websocket\r\n", ""), "400"},
      {"page not allowed", with("elsewhere", "evil"), "403"},
      {"no HTTP", "\x16\x03\x01 hello\r\n\r\n", "400"},
      {"bad key", with("AAA==", "AAA="), "400"},
      {"old version", with(": 13", ": 12"), "426"},
      {"endless header", "GET / HTTP/1.1\r\nX: " + std::string(100'000, 'a'), "431"},
  };
  std::size_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient client(server.port);
    client.send(c.request);
    const auto head = client.readHead();
    EXPECT_EQ(head.substr(std::min<std::size_t>(head.size(), 9), 3), c.answer);
    EXPECT_EQ(head.find("\r\nUpgrade: websocket\r\n") != std::string::npos,
              c.answer == "101" || c.answer == "426");
    const auto report = server.reportsOf(n++)[0];
    if (c.answer == "101") continue;
    EXPECT_NE(head.find("\r\nConnection: close\r\n"), std::string::npos);
    EXPECT_EQ(client.read().opcode, kEnd);
    EXPECT_EQ(report.substr(0, 7), "failed:");
    EXPECT_EQ(report.find("--allow-origin): http://evil") != std::string::npos, c.answer == "403");
  }
}

TEST_F(WebSocketConformance, FramesRightBehindTheRequestAreServed) {
  for (const std::size_t size : {1, 60'000}) {
    const std::string payload(size, 'x');
    RawClient client(server.port);
    client.send(RawClient::kUpgrade + wire(kFinPing, "p") + text(payload) + closing(1000));
    EXPECT_EQ(client.readStatus(), "101");
    EXPECT_EQ(client.read(), echo("early"));
    EXPECT_EQ(client.read(), (Frame{kPong, "p"}));
    EXPECT_EQ(client.read(), echo(payload));
    EXPECT_EQ(client.read(), closeFrame(1000));
    EXPECT_EQ(client.read().opcode, kEnd);
  }
}

}  // namespace
}  // namespace tarnlink::test
