// TLS in front of the transport.
#include <gtest/gtest.h>

#include <boost/asio/ssl.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/websocket/websocket_fixtures.h"
#include "websocket/tls_context.h"

namespace tarnlink::test {
namespace {

namespace fs = std::filesystem;
namespace ssl = asio::ssl;

class WebSocketTls : public ::testing::Test {
 protected:
  WebSocketTls() {
    std::string pattern = fs::temp_directory_path() / "tls-XXXXXX";
    folder_ = ::mkdtemp(pattern.data());
    makeCertificate("a", "-nodes");
  }
  ~WebSocketTls() override { fs::remove_all(folder_); }

  void makeCertificate(const std::string& name, const std::string& more) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -days 2 -subj /CN=localhost "
        "-addext subjectAltName=DNS:localhost -keyout " +
        file(name + ".key") + " -out " + file(name + ".pem") + " " + more + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }
  std::string file(const std::string& name) const { return folder_ / name; }

  fs::path folder_;
};

/// A client that verifies the certificate. Every call blocks; a test's time limit ends it.
class TlsClient {
 public:
  TlsClient(std::uint16_t port, const std::string& authority, int receiveBuffer = 1 << 20)
      : socket_(io_, context_) {
    context_.load_verify_file(authority);
    socket_.set_verify_mode(ssl::verify_peer);
    socket_.set_verify_callback(ssl::host_name_verification("localhost"));
    socket_.next_layer().open(tcp::v4());
    socket_.next_layer().set_option(asio::socket_base::receive_buffer_size(receiveBuffer));
    socket_.next_layer().connect({asio::ip::address_v4::loopback(), port});
    socket_.handshake(ssl::stream_base::client);
  }
  void send(const std::string& octets) { asio::write(socket_, asio::buffer(octets)); }
  std::string read(std::size_t size) {
    std::string octets(size, '\0');
    octets.resize(asio::read(socket_, asio::buffer(octets), end_));
    return octets;
  }
  std::string readHead() {
    std::string head;
    while (!head.ends_with("\r\n\r\n") && !end_) head += read(1);
    return head;
  }
  /// Why the last read gave less than was asked for.
  error_code end() const { return end_; }
  void close() {
    error_code ignored;
    socket_.shutdown(ignored);
  }

 private:
  asio::io_context io_;
  ssl::context context_{ssl::context::tls_client};
  ssl::stream<tcp::socket> socket_;
  error_code end_;
};

TEST_F(WebSocketTls, CarriesTheWholeConversationAndEndsInOrder) {
  WebSocketAccess access;
  access.tls = *TlsContext::load(file("a.pem"), file("a.key"));
  Server server({}, Server::Messages::recorded, access);
  TlsClient client(server.port, file("a.pem"));
  client.send(RawClient::kUpgrade);
  ASSERT_EQ(client.readHead().substr(0, 12), "HTTP/1.1 101");
  EXPECT_EQ(client.read(7),
            "\x81\x05"
            "early");
  client.send(wire(0x81, std::string(100'000, 'q')) + wire(0x89, "p"));
  const Peer& peer = server.peer(0, 2);
  EXPECT_TRUE(peer.reports[1].starts_with("< qqq"));
  EXPECT_EQ(client.read(3), "\x8A\x01p");

  constexpr int kFrames = 100;
  for (int i = 0; i < kFrames; ++i) peer.connection->send(frameOf(60'000));
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_EQ(client.read(4 + 60'000).substr(4), std::string(60'000, 'x')) << i;
  }

  // Small ones do not fill their records, and more of them than the socket takes have to wait.
  std::vector<SharedTextFrame> events;
  std::string expected;
  for (int i = 100'000; i < 160'000; ++i) {
    events.push_back(TextFrame::copyOf(std::to_string(i) + std::string(94, 'e')));
    expected.append(events.back()->data(), events.back()->size());
  }
  peer.connection->sendBurst(events);
  std::this_thread::sleep_for(200ms);
  EXPECT_TRUE(client.read(expected.size()) == expected);

  TlsClient leaving(server.port, file("a.pem"));
  leaving.send(RawClient::kUpgrade);
  ASSERT_EQ(leaving.readHead().substr(0, 12), "HTTP/1.1 101");
  leaving.close();
  server.peer(1, 2);
  EXPECT_EQ(server.reportsOf(1)[1], "end: End of file") << "close_notify is an end";

  // Nobody else suffers from those who speak no TLS, or never finish their handshake.
  RawClient plain(server.port);
  plain.send(RawClient::kUpgrade);
  EXPECT_FALSE(plain.readHead().starts_with("HTTP"));
  RawClient silent(server.port);

  peer.connection->cancel();
  EXPECT_EQ(client.read(4), "\x88\x02\x03\xE9");
  client.send(wire(0x88, closeFrame(1001).payload));
  EXPECT_EQ(client.read(1), "");
  EXPECT_EQ(client.end(), asio::error::eof) << "close_notify, not a truncation";
}

// A record that waits for the socket is encrypted already: what is in it cannot be forgotten.
TEST_F(WebSocketTls, TheAnswerToACloseFollowsWhatHasBegun) {
  WebSocketAccess access;
  access.tls = *TlsContext::load(file("a.pem"), file("a.key"));
  Server server({}, Server::Messages::recorded, access);
  TlsClient client(server.port, file("a.pem"), 4096);
  client.send(RawClient::kUpgrade);
  ASSERT_EQ(client.readHead().substr(0, 12), "HTTP/1.1 101");
  client.read(7);  // "early"
  std::vector<SharedTextFrame> events(100'000, frameOf(100));
  server.peer(0).connection->sendBurst(events);
  std::this_thread::sleep_for(200ms);
  client.send(wire(0x88, closeFrame(1000).payload));
  std::this_thread::sleep_for(200ms);
  const auto all = client.read(100'000 * 102);
  EXPECT_LT(all.size(), 100'000 * 102u);
  EXPECT_EQ(all.size() % 102, 4u) << "whole frames and the answer";
  EXPECT_TRUE(all.ends_with("\x88\x02\x03\xE8"));
}

TEST_F(WebSocketTls, AClientThatDoesNotReadIsDroppedWithItsDescriptors) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  WebSocketAccess access;
  access.tls = *TlsContext::load(file("a.pem"), file("a.key"));
  WebSocketLimits limits;
  limits.sendQueue = 1 << 20;
  Server server(limits, Server::Messages::recorded, access);
  TlsClient(server.port, file("a.pem"));  // The first connection opens what stays open.
  server.peer(0);
  std::this_thread::sleep_for(200ms);
  const auto before = descriptors();
  {
    TlsClient stuck(server.port, file("a.pem"), 4096);
    stuck.send(RawClient::kUpgrade);
    ASSERT_EQ(stuck.readHead().substr(0, 12), "HTTP/1.1 101");
    const Peer& peer = server.peer(1);
    // Slowly enough for all that lies between to fill up.
    for (int i = 0; i < 2000 && server.reportsOf(1).size() < 3; ++i) {
      peer.connection->send(frameOf(64 << 10));
      std::this_thread::sleep_for(1ms);
    }
    server.peer(1, 3);
    // The client's own descriptors are left.
    for (int i = 0; i < 200 && descriptors() > before + 4; ++i) std::this_thread::sleep_for(20ms);
    while (!stuck.end()) stuck.read(1 << 16);
    EXPECT_NE(stuck.end(), asio::error::eof) << "a reset: what was sent last is missing";
  }
  for (int i = 0; i < 200 && descriptors() > before; ++i) std::this_thread::sleep_for(20ms);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(WebSocketTls, UnusableFilesAreNamedWithTheReason) {
  makeCertificate("b", "-nodes");
  makeCertificate("locked", "-passout pass:secret");
  std::ofstream(file("garbage")) << "no certificate\n";
  const struct {
    const char* certificate;
    const char* key;
    const char* named;
  } cases[] = {
      {"missing", "a.key", "missing: No such file"},
      {"a.pem", "missing", "missing: No such file"},
      {"", "a.key", ": "},
      {"garbage", "a.key", "garbage: no certificate"},
      {"a.pem", "garbage", "garbage: not the certificate's key"},
      {"a.pem", "b.key", "b.key: not the certificate's key"},
      {"locked.pem", "locked.key", "locked.key: not the certificate's key"},
  };
  for (const auto& [certificate, key, named] : cases) {
    const auto loaded = TlsContext::load(file(certificate), file(key));
    ASSERT_TRUE(loaded.has_error()) << certificate << " " << key;
    EXPECT_NE(loaded.error().find(named), std::string::npos) << loaded.error();
  }
}

}  // namespace
}  // namespace tarnlink::test
