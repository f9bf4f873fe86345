#include "tests/websocket/websocket_fixtures.h"
#include "websocket/connection_stream.h"

#include <fstream>

namespace tarnlink::test {
namespace {

// A write that failed has closed the socket while the library was busy with what it had read. The
// socket's number may be another connection's by then.
TEST(ConnectionStream, NothingIsReadOrWrittenOnASocketThatIsClosed) {
  struct Ignoring final : ConnectionStream::Owner {
    void onWriteFailed(const error_code&) override {}
    void onCloseQueued() override {}
    void onAnswersSent() override {}
    std::shared_ptr<void> keepAlive() override { return nullptr; }
  } owner;
  for (const auto& tls : {std::shared_ptr<const TlsContext>(), certificates().context()}) {
    asio::io_context io;
    tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    tcp::socket peer(io), other(io);
    peer.connect(acceptor.local_endpoint());
    ConnectionStream stream(acceptor.accept(), 1 << 20, tls, owner);
    stream.open();
    other.connect(acceptor.local_endpoint());
    tcp::socket accepted = acceptor.accept();
    asio::write(other, asio::buffer("precious"));
    stream.close(false);
    const int number = ::dup(accepted.native_handle());  // The stream's, which has become free.
    std::vector<error_code> ends;
    const auto note = [&](const auto& error, std::size_t) { ends.push_back(error); };
    std::array<char, 100> room{};
    stream.async_read_some(asio::buffer(room), note);
    stream.async_write_some(asio::buffer("\x88\x00", 2), note);
    EXPECT_TRUE(ends.empty()) << "completed inside the call that began it";
    io.run_for(1s);
    EXPECT_EQ(ends, std::vector<error_code>(2, asio::error::operation_aborted));
    EXPECT_EQ(accepted.available(), sizeof "precious");
    ::close(number);
  }
}

TEST(TlsContext, UnusableFilesAreNamedWithTheReason) {
  const Certificates folder;
  folder.make("b", "-nodes");
  folder.make("locked", "-passout pass:secret");
  std::ofstream(folder.file("garbage")) << "no certificate\n";
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
    const auto loaded = TlsContext::load(folder.file(certificate), folder.file(key));
    ASSERT_TRUE(loaded.has_error()) << certificate << " " << key;
    EXPECT_NE(loaded.error().find(named), std::string::npos) << loaded.error();
  }
}

}  // namespace
}  // namespace tarnlink::test
