#include "websocket/upgrade_request.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/host_name.hpp>

#include "websocket/websocket.h"

namespace tarnlink::test {
namespace {

using boost::system::error_code;
using Lines = UpgradeRequest::Lines;

const UpgradeRequest kProper{{"x"}, {}, {"AAAAAAAAAAAAAAAAAAAAAA=="}, {"13"}, {}, {}};

TEST(UpgradeRequest, BadOnes) {
  const struct {
    const char* name;
    Lines UpgradeRequest::*field;
    Lines lines;
    unsigned status;
  } cases[] = {
      {"host with a port", &UpgradeRequest::host, {"Bridge.example:8765"}, 0},
      {"IPv6 host", &UpgradeRequest::host, {"[2001:db8::1]:8765"}, 0},
      {"no Host", &UpgradeRequest::host, {}, 400},
      {"two Hosts", &UpgradeRequest::host, {"x", "x"}, 400},
      {"empty Host", &UpgradeRequest::host, {""}, 400},
      {"host with a path", &UpgradeRequest::host, {"x/y"}, 400},
      {"host with a user", &UpgradeRequest::host, {"a@x"}, 400},
      {"host with a bad port", &UpgradeRequest::host, {"x:80a"}, 400},
      {"port too long", &UpgradeRequest::host, {"x:123456"}, 400},
      {"half an IPv6 host", &UpgradeRequest::host, {"[::1"}, 400},
      {"empty body", &UpgradeRequest::contentLength, {"0"}, 0},
      {"body", &UpgradeRequest::contentLength, {"5"}, 400},
      {"body in the second line", &UpgradeRequest::contentLength, {"0", "5"}, 400},
      {"chunked body", &UpgradeRequest::transferEncoding, {"chunked"}, 400},
      // RFC 6455, 4.2.1: base64 of 16 octets.
      {"no key", &UpgradeRequest::key, {}, 400},
      {"two keys", &UpgradeRequest::key, {kProper.key[0], kProper.key[0]}, 400},
      {"key of 15 octets", &UpgradeRequest::key, {"AAAAAAAAAAAAAAAAAAAAA=="}, 400},
      {"key of 17 octets", &UpgradeRequest::key, {"AAAAAAAAAAAAAAAAAAAAAAA="}, 400},
      {"key of 18 octets", &UpgradeRequest::key, {"AAAAAAAAAAAAAAAAAAAAAAAA"}, 400},
      {"key too long", &UpgradeRequest::key, {"AAAAAAAAAAAAAAAAAAAAAAAAAA=="}, 400},
      {"key that is not base64", &UpgradeRequest::key, {"A A,AAAAAAAAAAAAAAAAAA=="}, 400},
      {"two versions", &UpgradeRequest::version, {"13", "12"}, 400},
  };
  const UpgradeRules rules;
  for (const auto& [name, field, lines, status] : cases) {
    auto request = kProper;
    request.*field = lines;
    const auto verdict = judge(request, &rules);
    EXPECT_EQ(verdict.status, status) << name;
    EXPECT_EQ(verdict.error.failed(), status != 0) << name;
    EXPECT_EQ(judge(request, nullptr).error, WebSocketError::tooManyClients);
  }
}

// A page of any origin can make its visitor's browser connect; the browser says which page it was.
TEST(UpgradeRequest, WebPagesAreLetInByOriginAndByTheNameTheyUse) {
  const std::string own = boost::asio::ip::host_name();
  const error_code kAllowed, kOrigin = WebSocketError::originNotAllowed,
                             kHost = WebSocketError::hostNotAllowed;
  const std::string plant = "https://plant.example.org";
  const struct {
    Lines origin;
    std::string host;
    error_code error;
    std::string detail;
  } cases[] = {
      {{plant}, "localhost:8765", kAllowed, ""},
      {{"HTTPS://Plant.Example.org:443"}, "LOCALHOST", kAllowed, ""},
      {{"https://plant.example.org:8443"}, "localhost", kOrigin, "https://plant.example.org:8443"},
      {{"http://plant.example.org"}, "localhost", kOrigin, "http://plant.example.org"},
      {{"https://plant.example.org.evil"}, "localhost", kOrigin, "https://plant.example.org.evil"},
      {{"https://a.lab.example:9"}, "127.0.0.1:8765", kAllowed, ""},
      {{"https://a.b.lab.example"}, "127.0.0.1", kOrigin, "https://a.b.lab.example"},
      {{"https://lab.example"}, "127.0.0.1", kOrigin, "https://lab.example"},
      {{"http://[::1]:3000"}, "[::1]:8765", kAllowed, ""},
      {{"null"}, "localhost", kOrigin, "null"},
      {{""}, "localhost", kOrigin, ""},
      {{plant, "https://evil"}, "localhost", kOrigin, plant + ", https://evil"},
      {{plant}, "evil.example:8765", kHost, "evil.example:8765"},
      {{plant}, "127.0.0.1.evil.example", kHost, "127.0.0.1.evil.example"},
      {{plant}, own + ".:8765", kAllowed, ""},
      {{plant}, own.substr(0, own.find('.')) + ".local", kAllowed, ""},
      {{plant}, "Bridge.Example.org", kAllowed, ""},
      {{plant}, std::string(1000, 'a'), kHost, std::string(256, 'a')},
      {{}, "evil.example", kAllowed, ""},
  };
  UpgradeRules rules;
  for (const char* text : {plant.c_str(), "*://*.lab.example:*", "http://[::1]:*"}) {
    rules.origins.push_back(OriginPattern::parse(text).value());
  }
  rules.checksHost = true;
  rules.hosts = {"bridge.example.org"};
  for (const auto& [origin, host, error, detail] : cases) {
    auto request = kProper;
    request.origin = origin;
    request.host = {host};
    const auto verdict = judge(request, &rules);
    EXPECT_EQ(verdict.error, error) << asList(origin) << " to " << host;
    EXPECT_EQ(verdict.status, error ? 403u : 0u);
    EXPECT_EQ(verdict.detail, detail);
  }
}

TEST(OriginPattern, RefusesWhatCouldNeverMatch) {
  for (const char* text :
       {"", "example.org", "https://", "https://a..b", "https://a:", "https://a/",
        "https://dev-*.example", "https://a:99999999", "https://[x]", "//a"}) {
    EXPECT_FALSE(OriginPattern::parse(text)) << text;
  }
}

}  // namespace
}  // namespace tarnlink::test
