// Who is let in: by origin and host, by number, by local address.
#include <thread>

#include "tests/websocket/websocket_fixtures.h"
#include "websocket/websocket_client.h"

namespace tarnlink::test {
namespace {

// A page of any origin can make its visitor's browser connect; the browser says which page it was.
TEST(WebSocketTransport, WebPagesAreLetInByOriginAndByTheNameTheyUse) {
  const std::string own = boost::asio::ip::host_name();
  const struct {
    const char* origin;  // Null: the request has no such field.
    std::string host;
    const char* answer;
  } cases[] = {
      {"https://plant.example.org", "localhost:8765", "101"},
      {"HTTPS://Plant.Example.org:443", "LOCALHOST", "101"},
      {"https://plant.example.org:8443", "localhost", "403"},
      {"http://plant.example.org", "localhost", "403"},
      {"https://evil.example", "localhost", "403"},
      {"https://plant.example.org.evil.example", "localhost", "403"},
      {"https://a.lab.example:9", "127.0.0.1:8765", "101"},
      {"https://a.b.lab.example", "127.0.0.1:8765", "403"},
      {"https://lab.example", "127.0.0.1:8765", "403"},
      {"http://[::1]:3000", "[::1]:8765", "101"},
      {"null", "localhost", "403"},
      {"", "localhost", "403"},
      {"https://plant.example.org\r\nOrigin: https://evil.example", "localhost", "403"},
      {"https://plant.example.org", "evil.example:8765", "403"},
      {"https://plant.example.org", "127.0.0.1.evil.example", "403"},
      {"https://plant.example.org", own + ".:8765", "101"},
      {"https://plant.example.org", own.substr(0, own.find('.')) + ".local", "101"},
      {"https://plant.example.org", "Bridge.Example.org", "101"},
      {nullptr, "evil.example", "101"},
  };
  WebSocketAccess access;
  for (const char* text : {"https://plant.example.org", "*://*.lab.example:*", "http://[::1]:*"}) {
    access.rules.origins.push_back(OriginPattern::parse(text).value());
  }
  access.rules.checksHost = true;
  access.rules.hosts = {"bridge.example.org"};
  Server server({}, Server::Messages::recorded, access);
  for (const auto& [origin, host, answer] : cases) {
    RawClient client(server.port);
    client.send("GET / HTTP/1.1\r\nHost: " + host + "\r\nUpgrade: websocket\r\n" +
                (origin != nullptr ? "Origin: " + std::string(origin) + "\r\n" : "") +
                "Connection: Upgrade\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n"
                "Sec-WebSocket-Version: 13\r\n\r\n");
    EXPECT_EQ(client.readHead().substr(9, 3), answer)
        << (origin != nullptr ? origin : "no origin") << " to " << host;
  }
}

// Whoever runs the bridge reads there which page it was, and what to give to which option.
TEST(WebSocketTransport, ARefusalNamesThePageAndTheOption) {
  WebSocketAccess access;
  access.rules.origins.push_back(OriginPattern::parse("https://plant.example.org").value());
  access.rules.checksHost = true;
  Server server({}, Server::Messages::recorded, access);
  const std::string longOrigin = "https://" + std::string(1000, 'a');
  const struct {
    std::string origin;
    std::string host;
    std::string option;
    std::string detail;
  } cases[] = {
      {"https://evil.example", "localhost", "--allow-origin", ": https://evil.example"},
      {longOrigin, "localhost", "--allow-origin", ": " + longOrigin.substr(0, 256)},
      {"https://plant.example.org", "evil.example", "--allow-host", ": evil.example"},
  };
  std::size_t n = 0;
  for (const auto& [origin, host, option, detail] : cases) {
    RawClient client(server.port);
    client.send("GET / HTTP/1.1\r\nHost: " + host + "\r\nOrigin: " + origin + "\r\n\r\n");
    EXPECT_EQ(client.readHead().substr(9, 3), "403");
    const auto report = server.peer(n++).reports[0];
    EXPECT_NE(report.find(option), std::string::npos) << report;
    EXPECT_TRUE(report.ends_with(detail)) << report;
  }
}

TEST(OriginPattern, RefusesWhatCouldNeverMatch) {
  for (const char* text :
       {"", "example.org", "https://", "https://a..b", "https://a:", "https://a/",
        "https://dev-*.example", "https://a:99999999", "https://[x]", "//a"}) {
    EXPECT_FALSE(OriginPattern::parse(text)) << text;
  }
}

TEST(WebSocketTransport, ClientsBeyondTheAllowedNumberAreRefusedAlone) {
  WebSocketAccess access;
  access.maxClients = 2;
  Server server({}, Server::Messages::recorded, access);
  auto first = RawClient::upgraded(server.port);
  RawClient silent(server.port);  // Counts although it does not even ask.
  server.peer(0);
  std::vector<std::unique_ptr<RawClient>> refused;
  for (int i = 0; i < 50; ++i) refused.push_back(std::make_unique<RawClient>(server.port));
  EXPECT_TRUE(refused.back()->readToEnd().isOver()) << "closed at once: too many wait";
  refused.front()->send(RawClient::kUpgrade);
  EXPECT_EQ(refused.front()->readHead().substr(0, 12), "HTTP/1.1 503");
  refused.clear();
  first.send(wire(0x81, "fine"));
  EXPECT_EQ(server.reportsOf(0, 2)[1], "< fine");
  silent.close();
  // Its place is free as soon as the server has seen it go.
  std::string answer;
  for (int i = 0; i < 100 && answer != "101"; ++i) {
    RawClient next(server.port);
    next.send(RawClient::kUpgrade);
    const auto head = next.readHead();
    answer = head.empty() ? "" : head.substr(9, 3);
    if (answer != "101") std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(answer, "101");
}

TEST(WebSocketTransport, ListensOnTheGivenAddressesAlone) {
  WebSocketAccess access;
  access.addresses = {asio::ip::make_address("127.0.0.2"), asio::ip::make_address("127.0.0.3")};
  Server server({}, Server::Messages::recorded, access);
  EXPECT_EQ(server.listenerReports, std::vector<std::string>{"ready"});
  for (const char* host : {"127.0.0.2", "127.0.0.3"}) {
    EXPECT_TRUE(WebSocketClient::connect(host, server.port)) << host;
  }
  for (const char* host : {"127.0.0.1", "::1"}) {
    EXPECT_EQ(WebSocketClient::connect(host, server.port).error(), asio::error::connection_refused);
  }
}

}  // namespace
}  // namespace tarnlink::test
