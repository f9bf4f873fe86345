// Everything a peer may send, sent over a plain socket: each case ends in the close code of RFC
// 6455 or a dropped connection, and another client of the same listener notices nothing.
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
constexpr int kFinPong = 0x8A;
constexpr int kText0 = 0x01;  // without FIN
constexpr int kContinuation0 = 0x00;

constexpr std::size_t kMessageLimit = 70'000;  // octets
const std::string kNoCode;                     // what a close frame without a code has

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
  WebSocketConformance() : bystander_(RawClient::upgraded(server.port)) {}

  void TearDown() override {
    bystander_.send(wire(kFinPing, "still") + text("there?"));
    EXPECT_EQ(bystander_.read(), (Frame{kPong, "still"}));
    EXPECT_EQ(bystander_.read(), echo("there?"));
  }

  static WebSocketLimits limits() {
    WebSocketLimits limits;
    limits.incomingMessage = kMessageLimit;
    return limits;
  }

  void check(const std::vector<Case>& cases) const {
    for (const auto& c : cases) {
      const std::size_t whole = c.sent.size() + 1;
      const bool isLong = c.sent.size() > 2'000;
      const std::array<std::size_t, 3> shortPieces{whole, 7, 1};
      const std::array<std::size_t, 3> longPieces{whole, 9'973, 1'009};
      for (const auto piece : isLong ? longPieces : shortPieces) {
        SCOPED_TRACE(c.name + ", in pieces of " + std::to_string(piece));
        check(c, piece);
      }
    }
  }

  Server server{limits(), Server::Messages::echoed};

 private:
  void check(const Case& c, std::size_t piece) const {
    auto client = RawClient::upgraded(server.port);
    client.send(c.sent, piece);
    for (const auto& answer : c.answers) ASSERT_EQ(client.read(), answer);
    if (c.answers.empty() || c.answers.back().opcode != kClose) {
      client.send(closing(1000));
      ASSERT_EQ(client.read(), closeFrame(1000));
    }
    client.send(closing(1000));  // the server may wait for it
    ASSERT_EQ(client.read().opcode, kEnd);
  }

  RawClient bystander_;
};

TEST_F(WebSocketConformance, Framing) {
  std::vector<Case> cases;
  for (const std::size_t size : {0, 1, 125, 126, 127, 128, 65'535, 65'536}) {
    std::string payload;
    for (std::size_t i = 0; i < size; ++i) payload += static_cast<char>('!' + i % 89);
    const auto octets = std::to_string(size) + " octets";
    cases.push_back({"text of " + octets, text(payload), {echo(payload)}});
    cases.push_back({"binary of " + octets, wire(kFinBinary, payload), {echo(octets)}});
  }
  const auto failed = closeFrame(1002);
  const std::string longHeader = "\x81\xFF";
  const std::string mask(4, '\0');
  // RFC 6455, 5.2: the length is written in the shortest way.
  cases.insert(
      cases.end(),
      {{"16-bit length of 125", "\x81\xFE" + std::string("\0\x7D", 2) + mask, {failed}},
       {"64-bit length of 65535",
        longHeader + std::string("\0\0\0\0\0\0\xFF\xFF", 8) + mask,
        {failed}},
       {"64-bit length of 0", longHeader + std::string(8, '\0') + mask, {failed}},
       {"length above 63 bits", longHeader + std::string(8, '\xFF') + mask, {closeFrame(1009)}},
       {"not masked", wire(kFinText, "a", 0), {failed}},
       {"not masked, empty", wire(kFinText, "", 0), {failed}},
       {"close not masked", wire(kFinClose, closeFrame(1000).payload, 0), {failed}},
       {"ten messages at once",
        text("0") + text("1") + text("2") + text("3") + text("4"),
        {echo("0"), echo("1"), echo("2"), echo("3"), echo("4")}}});
  check(cases);
}

TEST_F(WebSocketConformance, PingsAndPongs) {
  const std::string all125(125, '\xFE');
  std::string tenPings;
  std::vector<Frame> tenPongs;
  for (int i = 0; i < 10; ++i) {
    tenPings += wire(kFinPing, std::to_string(i));
    tenPongs.push_back({kPong, std::to_string(i)});
  }
  check({
      {"empty", wire(kFinPing, ""), {{kPong, ""}}},
      {"binary payload",
       wire(kFinPing, std::string("\0\xFF\xFE\n", 4)),
       {{kPong, std::string("\0\xFF\xFE\n", 4)}}},
      {"longest", wire(kFinPing, all125), {{kPong, all125}}},
      {"too long", wire(kFinPing, all125 + "x"), {closeFrame(1002)}},
      {"too long pong", wire(kFinPong, all125 + "x"), {closeFrame(1002)}},
      {"fragmented", wire(0x09, "a") + wire(kFinContinuation, "b"), {closeFrame(1002)}},
      {"fragmented pong", wire(0x0A, "a"), {closeFrame(1002)}},
      {"ten in sequence", tenPings, tenPongs},
      {"unasked pongs",
       wire(kFinPong, "") + wire(kFinPong, "x") + wire(kFinPing, "p"),
       {{kPong, "p"}}},
  });
}

TEST_F(WebSocketConformance, ReservedBitsAndOpcodes) {
  std::vector<Case> cases;
  const auto add = [&](const std::string& name, const std::string& frame) {
    // What came before is served, what follows is not.
    cases.push_back({name,
                     text("before") + frame + wire(kFinPing, "after"),
                     {echo("before"), closeFrame(1002)}});
  };
  for (const int opcode : {3, 4, 5, 6, 7, 11, 12, 13, 14, 15}) {
    for (const char* payload : {"", "x"}) {
      add("opcode " + std::to_string(opcode), wire(0x80 | opcode, payload));
    }
  }
  for (int bits = 1; bits < 8; ++bits) {
    for (const int first : {kFinText, kFinBinary, kFinClose, kFinPing, kFinPong}) {
      add("reserved bits " + std::to_string(bits) + " of opcode " + std::to_string(first & 15),
          wire(first | bits << 4, closeFrame(1000).payload));
    }
  }
  check(cases);
  check({{"in a continuation", wire(kText0, "a") + wire(0xC0, "b"), {closeFrame(1002)}}});
}

TEST_F(WebSocketConformance, Fragments) {
  const auto failed = closeFrame(1002);
  std::string many = wire(kText0, "");
  for (int i = 0; i < 500; ++i) many += wire(kContinuation0, i % 3 == 0 ? "" : "ab");
  std::string manyText;
  for (int i = 0; i < 500; ++i) manyText += i % 3 == 0 ? "" : "ab";
  check({
      {"two", wire(kText0, "a") + wire(kFinContinuation, "b"), {echo("ab")}},
      {"all empty",
       wire(kText0, "") + wire(kContinuation0, "") + wire(kFinContinuation, ""),
       {echo("")}},
      {"only the middle filled",
       wire(kText0, "") + wire(kContinuation0, "m") + wire(kFinContinuation, ""),
       {echo("m")}},
      {"five hundred", many + wire(kFinContinuation, "."), {echo(manyText + ".")}},
      {"ping between",
       wire(kText0, "a") + wire(kFinPing, "p") + wire(kContinuation0, "b") + wire(kFinPong, "") +
           wire(kFinPing, "") + wire(kFinContinuation, "c") + text("d"),
       {{kPong, "p"}, {kPong, ""}, echo("abc"), echo("d")}},
      {"close between", wire(kText0, "a") + closing(1000), {closeFrame(1000)}},
      {"continuation of nothing", wire(kFinContinuation, "a"), {failed}},
      {"continuation of nothing, open", wire(kContinuation0, "a"), {failed}},
      {"continuation after a whole message",
       text("a") + wire(kFinContinuation, "b"),
       {echo("a"), failed}},
      {"text in text", wire(kText0, "a") + text("b"), {failed}},
      {"binary in text", wire(kText0, "a") + wire(kFinBinary, "b"), {failed}},
      {"open text in text", wire(kText0, "a") + wire(kText0, "b"), {failed}},
  });
}

TEST_F(WebSocketConformance, Utf8) {
  std::vector<Case> cases;
  // Ends of the ranges of RFC 3629, section 4, with noncharacters, which are valid.
  for (const std::string& valid :
       {std::string("Hello-\xC2\xB5@\xC3\x9F\xC3\xB6\xE2\x82\xAC"), std::string("\0", 1),
        std::string("\x7F"), std::string("\xC2\x80"), std::string("\xDF\xBF"),
        std::string("\xE0\xA0\x80"), std::string("\xED\x9F\xBF"), std::string("\xEE\x80\x80"),
        std::string("\xEF\xBF\xBE\xEF\xBF\xBF"), std::string("\xF0\x90\x80\x80"),
        std::string("\xF4\x8F\xBF\xBF"), "long enough for words: " + std::string("\xC3\xA9")}) {
    cases.push_back({"valid", text(valid), {echo(valid)}});
    for (std::size_t at = 0; at <= valid.size(); ++at) {
      const auto before = wire(kText0, valid.substr(0, at));
      const auto after = wire(kFinContinuation, valid.substr(at));
      cases.push_back({"valid, split at " + std::to_string(at),
                       before + wire(kFinPing, "") + after,
                       {{kPong, ""}, echo(valid)}});
    }
  }
  const struct {
    const char* name;
    std::string octets;
  } invalid[] = {
      {"continuation octet alone", "\x80"},
      {"two continuation octets", "a\xBF\x80"},
      {"overlong in 2", "\xC0\xAF"},
      {"overlong in 2, last", "\xC1\xBF"},
      {"overlong in 3", "\xE0\x9F\xBF"},
      {"overlong in 4", "\xF0\x8F\xBF\xBF"},
      {"first surrogate", "\xED\xA0\x80"},
      {"last surrogate", "\xED\xBF\xBF"},
      {"surrogate pair", "\xED\xA0\x80\xED\xB0\x80"},
      {"above U+10FFFF", "\xF4\x90\x80\x80"},
      {"F5", "\xF5\x80\x80\x80"},
      {"five octets", "\xF8\x88\x80\x80\x80"},
      {"FE", "\xFE"},
      {"FF", "\xFF"},
      {"sequence broken off", "\xE2\x82 and more"},
      {"last octet missing", "a\xE2\x82"},
      {"last three missing", "long enough for words \xF0"},
  };
  const auto failed = closeFrame(1007);
  for (const auto& [name, octets] : invalid) {
    cases.push_back({name, text(octets) + text("x"), {failed}});
    cases.push_back({std::string(name) + ", octet by fragment",
                     [&octets = octets] {
                       auto frames = wire(kText0, "");
                       for (const char c : octets) frames += wire(kContinuation0, {c});
                       return frames + wire(kFinContinuation, "");
                     }(),
                     {failed}});
  }
  // Said as soon as it is certain, in the middle of a frame.
  for (const char* octets :
       {"\x80", "\xC0", "\xE0\x9F", "\xED\xA0", "\xF0\x8F", "\xF4\x90", "\xF5"}) {
    const auto frame = text(octets + std::string(100, 'a'));
    cases.push_back({"rest never sent", frame.substr(0, 6 + std::string(octets).size()), {failed}});
  }
  cases.push_back({"binary is not text", wire(kFinBinary, "\xFF"), {echo("1 octets")}});
  check(cases);
}

TEST_F(WebSocketConformance, Closing) {
  std::vector<Case> cases;
  for (const int code :
       {1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 1012, 1013, 3000, 3999, 4000, 4999}) {
    // RFC 6455, 5.5.1: the answer echoes the code. Nothing after it is of interest.
    cases.push_back({"code " + std::to_string(code),
                     closing(code, "why") + wire(kFinPing, "late") + text("later") + closing(code),
                     {closeFrame(code)}});
  }
  const auto failed = closeFrame(1002);
  // RFC 6455, 7.4: not to be sent, or without a meaning.
  for (const int code :
       {0, 999, 1004, 1005, 1006, 1014, 1015, 1016, 1100, 2000, 2999, 5000, 65535}) {
    cases.push_back({"code " + std::to_string(code), closing(code), {failed}});
  }
  const std::string reason(123, 'r');
  cases.insert(cases.end(),
               {{"no code", closing(kNoCode), {closeFrame(1000)}},
                {"half a code", closing(std::string("\x03")), {failed}},
                {"longest reason", closing(1000, reason), {closeFrame(1000)}},
                {"reason too long", closing(1000, reason + "r"), {failed}},
                {"reason not UTF-8", closing(1000, "\xED\xA0\x80"), {failed}},
                {"reason cut", closing(1000, "a\xE2\x82"), {failed}},
                {"fragmented", wire(0x08, closeFrame(1000).payload), {failed}},
                {"garbage behind", closing(1000) + "\xFF\x00garbage", {closeFrame(1000)}}});
  check(cases);
}

TEST_F(WebSocketConformance, BothEndsCloseAtOnce) {
  auto client = RawClient::upgraded(server.port);
  auto& connection = *server.peer(1).connection;
  connection.cancel();
  client.send(closing(3001));
  EXPECT_EQ(client.read().opcode, kClose);
  EXPECT_EQ(client.read().opcode, kEnd);
}

TEST_F(WebSocketConformance, Limits) {
  const std::string most(kMessageLimit, 'a');
  const auto failed = closeFrame(1009);
  check({
      {"exactly", text(most), {echo(most)}},
      {"exactly, twice", text(most) + text(most), {echo(most), echo(most)}},
      {"one more", text(most + "a"), {failed}},
      {"by length alone", text(most + "a").substr(0, 14), {failed}},
      {"binary", wire(kFinBinary, most + "a"), {failed}},
      {"exactly, in fragments",
       wire(kText0, "") + wire(kContinuation0, most) + wire(kFinContinuation, ""),
       {echo(most)}},
      {"fragments one above", wire(kText0, most) + wire(kFinContinuation, "a"), {failed}},
      {"fragments without end",
       wire(kText0, most) + wire(kContinuation0, "") + wire(kContinuation0, "a") +
           std::string(3'000'000, 'x'),
       {failed}},
      {"far more", text(std::string(8'000'000, 'a')), {failed}},
  });
}

// The peer sees to its own sending first, and the server's road to it is full.
TEST_F(WebSocketConformance, APeerThatReadsOnlyAfterItsLongMessageLearnsWhy) {
  auto client = RawClient::upgraded(server.port, 4096);
  std::vector<SharedTextFrame> events(100, frameOf(256 << 10));
  server.peer(1).connection->sendBurst(events);
  client.send(text(std::string(12'000'000, 'a')));
  int texts = 0;
  Frame frame;
  while ((frame = client.read()).opcode == kText) ++texts;
  EXPECT_LT(texts, 100);  // what the socket would not take does not hold up the answer
  EXPECT_EQ(frame, closeFrame(1009));
  EXPECT_EQ(client.read().opcode, kEnd);
}

TEST_F(WebSocketConformance, Handshakes) {
  const auto with = [](const std::string& from, const std::string& to) {
    auto request = RawClient::kUpgrade;
    return request.replace(request.find(from), from.size(), to);
  };
  const std::string key = "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n";
  const struct {
    const char* name;
    std::string request;
    const char* answer;
  } cases[] = {
      {"field names and values in other cases",
       with("Upgrade: websocket\r\nConnection: Upgrade",
            "UPGRADE: WebSocket\r\nconnection: keep-alive, upgrade"),
       "101"},
      {"Connection in two lines",
       with("Connection: Upgrade", "Connection: keep-alive\r\nConnection: Upgrade"), "101"},
      {"empty body", with("Host: x", "Host: x\r\nContent-Length: 0"), "101"},
      {"host with a port", with("Host: x", "Host: Bridge.example:8765"), "101"},
      {"IPv6 host", with("Host: x", "Host: [2001:db8::1]:8765"), "101"},
      {"body", with("Host: x", "Host: x\r\nContent-Length: 5") + "abcde", "400"},
      {"chunked body", with("Host: x", "Host: x\r\nTransfer-Encoding: chunked"), "400"},
      {"two Hosts", with("Host: x", "Host: x\r\nHost: x"), "400"},
      {"empty Host", with("Host: x", "Host:"), "400"},
      {"host with a path", with("Host: x", "Host: x/y"), "400"},
      {"host with a user", with("Host: x", "Host: a@x"), "400"},
      {"host with a bad port", with("Host: x", "Host: x:80a"), "400"},
      {"half an IPv6 host", with("Host: x", "Host: [::1"), "400"},
      {"page load", "GET / HTTP/1.1\r\nHost: x\r\n\r\n", "400"},
      {"post with a body", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nabcde", "400"},
      {"other method", with("GET", "PUT"), "400"},
      {"HTTP/1.0", with("HTTP/1.1", "HTTP/1.0"), "400"},
      {"HTTP/2.0", with("HTTP/1.1", "HTTP/2.0"), "400"},
      {"no HTTP", "\x16\x03\x01 hello\r\n\r\n", "400"},
      {"zeros", std::string(64, '\0'), "400"},
      {"no Host", with("Host: x\r\n", ""), "400"},
      {"no Upgrade", with("Upgrade: websocket\r\n", ""), "400"},
      {"other Upgrade", with("Upgrade: websocket", "Upgrade: h2c"), "400"},
      {"no Connection", with("Connection: Upgrade\r\n", ""), "400"},
      {"other Connection", with("Connection: Upgrade", "Connection: close"), "400"},
      {"no key", with(key, ""), "400"},
      // RFC 6455, 4.2.1: base64 of 16 octets.
      {"key of 15 octets", with("AAA==", "AA=="), "400"},
      {"key of 17 octets", with("AAA==", "AAA="), "400"},
      {"key of 18 octets", with("AAA==", "AAAA"), "400"},
      {"key too long", with("AAA==", "AAAAAAA=="), "400"},
      {"key that is not base64", with("AAAA", "A A,"), "400"},
      {"two keys", with(key, key + key), "400"},
      {"no version", with("Sec-WebSocket-Version: 13\r\n", ""), "400"},
      {"old version", with(": 13", ": 12"), "426"},
      {"endless header", "GET / HTTP/1.1\r\nX: " + std::string(100'000, 'a'), "431"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t n = server.peerCount();
    RawClient client(server.port);
    client.send(c.request, c.request.size() > 1'000 ? 9'973 : 11);
    const auto head = client.readHead();
    EXPECT_EQ(head.substr(std::min<std::size_t>(head.size(), 9), 3), c.answer);
    if (c.answer == std::string("426")) {
      EXPECT_NE(head.find("\r\nSec-WebSocket-Version: 13\r\n"), std::string::npos);
      EXPECT_NE(head.find("\r\nUpgrade: websocket\r\n"), std::string::npos);
    }
    if (c.answer == std::string("101")) continue;
    EXPECT_NE(head.find("\r\nConnection: close\r\n"), std::string::npos);
    EXPECT_EQ(client.readToEnd().opcode, kEnd);
    EXPECT_EQ(server.reportsOf(n)[0].substr(0, 7), "failed:");
  }
}

TEST_F(WebSocketConformance, FramesRightBehindTheRequestAreServed) {
  for (const std::size_t size : {1, 60'000}) {
    const std::string payload(size, 'x');
    RawClient client(server.port);
    client.send(RawClient::kUpgrade + wire(kFinPing, "p") + text(payload) + closing(1000));
    EXPECT_EQ(client.readHead().substr(0, 12), "HTTP/1.1 101");
    EXPECT_EQ(client.read(), echo("early"));
    EXPECT_EQ(client.read(), (Frame{kPong, "p"}));
    EXPECT_EQ(client.read(), echo(payload));
    EXPECT_EQ(client.read(), closeFrame(1000));
    EXPECT_EQ(client.read().opcode, kEnd);
  }
}

}  // namespace
}  // namespace tarnlink::test
