// The limit: a bare loop that gives encoded frames to the kernel, 64 with each sendmsg, out of one
// table that all clients share. No queue, no reference counts, no timers, no pings; a client that
// does not read holds up the others.
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <string_view>

#include "bench/burst_server.h"

namespace tarnlink::bench {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

// RFC 6455, 1.3: to the key of that example, which the readers send.
constexpr std::string_view kUpgradeAnswer =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";
constexpr std::uint64_t kStop = 1 << 20;  // More frames than are ever fed.

class BareServer final : public BurstServer {
 public:
  BareServer(std::uint16_t port, const Frames& frames, std::size_t clients)
      : acceptor_(io_, tcp::endpoint(asio::ip::address_v4::loopback(), port)) {
    for (const auto& frame : frames) {
      table_.push_back({const_cast<char*>(frame->data()), frame->size()});
    }
    thread_ = std::thread([this, clients] {
      while (clients_.size() < clients) accept();
      while (sendBurst()) {
      }
    });
  }
  ~BareServer() override {
    feed(kStop);
    thread_.join();
    ::close(wake_);
  }

  void feed(std::size_t frames) override { ::eventfd_write(wake_, frames); }

 private:
  void accept() {
    auto client = acceptor_.accept();
    client.set_option(tcp::no_delay(true));
    std::array<char, 1024> request;  // Comes in one piece.
    client.read_some(asio::buffer(request));
    asio::write(client, asio::buffer(kUpgradeAnswer));
    clients_.push_back(std::move(client));
  }

  // Waits for frames; false when there will be no more.
  bool sendBurst() {
    eventfd_t frames = 0;
    ::eventfd_read(wake_, &frames);
    if (frames >= kStop) return false;
    for (; frames > 0; frames -= std::min<eventfd_t>(frames, kBurst)) {
      msghdr burst{};
      burst.msg_iov = table_.data();
      burst.msg_iovlen = std::min<eventfd_t>(frames, kBurst);
      for (auto& client : clients_) ::sendmsg(client.native_handle(), &burst, MSG_NOSIGNAL);
    }
    return true;
  }

  asio::io_context io_;
  tcp::acceptor acceptor_;
  std::vector<iovec> table_;
  const int wake_ = ::eventfd(0, EFD_CLOEXEC);
  std::vector<tcp::socket> clients_;
};

}  // namespace

std::unique_ptr<BurstServer> makeBareServer(std::uint16_t port, const Frames& frames,
                                            std::size_t clients) {
  return std::make_unique<BareServer>(port, frames, clients);
}

}  // namespace tarnlink::bench
