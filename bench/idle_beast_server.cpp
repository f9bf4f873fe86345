// idle_beast_server PORT: what a WebSocket server on Boost.Beast takes before it does anything. It
// listens and accepts upgrades; what clients say is read and dropped. Ends when it is killed.
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <utility>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;

class Session : public std::enable_shared_from_this<Session> {
 public:
  explicit Session(tcp::socket socket) : websocket_(std::move(socket)) {}
  void start() {
    websocket_.async_accept([self = shared_from_this()](const beast::error_code& error) {
      if (!error) self->read();
    });
  }

 private:
  void read() {
    websocket_.async_read(buffer_,
                          [self = shared_from_this()](const beast::error_code& error, std::size_t) {
                            if (error) return;
                            self->buffer_.clear();
                            self->read();
                          });
  }

  beast::websocket::stream<beast::tcp_stream> websocket_;
  beast::flat_buffer buffer_;
};

void accept(tcp::acceptor& acceptor) {
  acceptor.async_accept([&acceptor](const beast::error_code& error, tcp::socket socket) {
    if (!error) std::make_shared<Session>(std::move(socket))->start();
    accept(acceptor);
  });
}

}  // namespace

int main(int, char** argv) {
  try {
    asio::io_context io(1);
    const auto port = static_cast<std::uint16_t>(std::atoi(argv[1]));
    tcp::acceptor acceptor(io, tcp::endpoint(tcp::v6(), port));
    accept(acceptor);
    std::puts("Listening");
    std::fflush(stdout);
    io.run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "idle_beast_server: %s\n", error.what());
    return 1;
  }
}
