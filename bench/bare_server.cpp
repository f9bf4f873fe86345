// The limit: a bare loop that gives encoded frames to the kernel, 64 with each sendmsg, out of one
// table that all clients share. No queue, no reference counts, no timers, no pings; a client that
// does not read holds up the others.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "bench/burst_server.h"

namespace tarnlink::bench {
namespace {

// RFC 6455, 1.3: to the key of that example, which the readers send.
constexpr std::string_view kUpgradeAnswer =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";
constexpr std::uint64_t kStop = 1 << 20;  // More frames than are ever fed.

template <class Result>
Result checked(Result result) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), "bare server");
  return result;
}

class BareServer final : public BurstServer {
 public:
  BareServer(std::uint16_t port, const Frames& frames, std::size_t clients) {
    for (const auto& frame : frames) {
      table_.push_back({const_cast<char*>(frame->data()), frame->size()});
    }
    const int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    checked(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address));
    checked(::listen(listener_, SOMAXCONN));
    thread_ = std::thread([this, clients] {
      while (clients_.size() < clients) accept();
      while (sendBurst()) {
      }
    });
  }
  ~BareServer() override {
    feed(kStop);
    thread_.join();
    for (const int client : clients_) ::close(client);
    ::close(listener_);
    ::close(wake_);
  }

  void feed(std::size_t frames) override {
    const std::uint64_t count = frames;
    checked(::write(wake_, &count, sizeof count));
  }

 private:
  void accept() {
    const int client = checked(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
    const int on = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::array<char, 1024> request;  // Comes in one piece.
    checked(::read(client, request.data(), request.size()));
    checked(::write(client, kUpgradeAnswer.data(), kUpgradeAnswer.size()));
    clients_.push_back(client);
  }

  // Waits for frames; false when there will be no more.
  bool sendBurst() {
    std::uint64_t frames = 0;
    checked(::read(wake_, &frames, sizeof frames));
    if (frames >= kStop) return false;
    for (; frames > 0; frames -= std::min<std::uint64_t>(frames, kBurst)) {
      msghdr burst{};
      burst.msg_iov = table_.data();
      burst.msg_iovlen = std::min<std::uint64_t>(frames, kBurst);
      for (const int client : clients_) ::sendmsg(client, &burst, MSG_NOSIGNAL);
    }
    return true;
  }

  std::vector<iovec> table_;
  int listener_ = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  int wake_ = checked(::eventfd(0, EFD_CLOEXEC));
  std::vector<int> clients_;
};

}  // namespace

std::unique_ptr<BurstServer> makeBareServer(std::uint16_t port, const Frames& frames,
                                            std::size_t clients) {
  return std::make_unique<BareServer>(port, frames, clients);
}

}  // namespace tarnlink::bench
