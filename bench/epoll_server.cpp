// The limit: a bare epoll loop that gives encoded frames to the kernel, 64 with each writev, from
// one table of buffers that all clients share. No queue, no reference counts, no timers, no pings.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <deque>
#include <string>
#include <system_error>

#include "bench/burst_server.h"
#include "bench/reading_clients.h"

namespace tarnlink::bench {
namespace {

int checked(int result) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), "epoll server");
  return result;
}

struct Client {
  int socket = -1;
  std::string request;     // of the upgrade, until it is complete
  bool isOpen = false;     // upgraded
  bool isBlocked = false;  // the socket takes no more for now
  std::size_t queued = 0;  // frames not yet wholly in the kernel
  std::size_t next = 0;    // first of them, in the table
  std::size_t begun = 0;   // octets of that frame which are in the kernel
};

class EpollServer final : public BurstServer {
 public:
  EpollServer(std::uint16_t port, const Frames& frames)
      : frames_(frames), frameSize_(frames.front()->size()) {
    // Twice over, so that 64 frames from any place on are in one piece.
    for (int turn = 0; turn < 2; ++turn) {
      for (const auto& frame : frames_) {
        table_.push_back({const_cast<char*>(frame->data()), frame->size()});
      }
    }
    listenOn(port);
    epoll_ = checked(::epoll_create1(EPOLL_CLOEXEC));
    wake_ = checked(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    watch(listener_, &listener_, EPOLLIN);
    watch(wake_, &wake_, EPOLLIN);
    thread_ = std::thread([this] { run(); });
  }
  ~EpollServer() override {
    isStopping_ = true;
    feed(1);
    thread_.join();
    for (const Client& client : clients_) ::close(client.socket);
    ::close(listener_);
    ::close(wake_);
    ::close(epoll_);
  }

  void feed(std::size_t frames) override {
    const std::uint64_t count = frames;
    checked(static_cast<int>(::write(wake_, &count, sizeof count)));
  }
  std::chrono::nanoseconds cpuTime() override { return cpuTimeOf(thread_); }

 private:
  void listenOn(std::uint16_t port) {
    listener_ = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    checked(::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    checked(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address));
    checked(::listen(listener_, SOMAXCONN));
  }

  void watch(int descriptor, void* tag, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = tag;
    checked(::epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event));
  }

  void run() {
    std::array<epoll_event, kBurst> events;
    while (!isStopping_) {
      const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
      for (int i = 0; i < count; ++i) {
        const auto& event = events[static_cast<std::size_t>(i)];
        if (event.data.ptr == &listener_) {
          accept();
        } else if (event.data.ptr == &wake_) {
          sendBurst();
        } else {
          serve(*static_cast<Client*>(event.data.ptr), event.events);
        }
      }
    }
  }

  void accept() {
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0) return;
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    clients_.push_back({});
    clients_.back().socket = socket;
    watch(socket, &clients_.back(), EPOLLIN | EPOLLOUT | EPOLLET);
  }

  void serve(Client& client, std::uint32_t events) {
    if ((events & EPOLLIN) != 0) read(client);
    if ((events & EPOLLOUT) != 0 && client.isBlocked) {
      client.isBlocked = false;
      write(client);
    }
  }

  void read(Client& client) {
    std::array<char, 4096> octets;
    ssize_t count = 0;
    while ((count = ::read(client.socket, octets.data(), octets.size())) > 0) {
      if (!client.isOpen) client.request.append(octets.data(), static_cast<std::size_t>(count));
    }
    if (client.isOpen || client.request.find("\r\n\r\n") == std::string::npos) return;
    client.isOpen = true;
    const std::string_view answer = kUpgradeAnswer;
    checked(static_cast<int>(::write(client.socket, answer.data(), answer.size())));
  }

  void sendBurst() {
    std::uint64_t frames = 0;
    if (::read(wake_, &frames, sizeof frames) < 0) return;
    for (Client& client : clients_) {
      client.queued += frames;
      if (!client.isBlocked) write(client);
    }
  }

  void write(Client& client) {
    while (client.queued > 0) {
      const auto count = std::min(client.queued, kBurst);
      const auto offered = count * frameSize_ - client.begun;
      const auto taken = gatheredWrite(client, count);
      if (taken < 0 && errno != EAGAIN) client.queued = 0;  // The client has gone.
      if (taken > 0) advance(client, static_cast<std::size_t>(taken));
      if (taken < static_cast<ssize_t>(offered)) {
        client.isBlocked = true;
        return;
      }
    }
  }

  ssize_t gatheredWrite(const Client& client, std::size_t count) {
    const iovec* first = &table_[client.next];
    if (client.begun == 0) return ::writev(client.socket, first, static_cast<int>(count));
    std::array<iovec, kBurst> rest;
    std::copy_n(first, count, rest.begin());
    rest[0].iov_base = static_cast<char*>(rest[0].iov_base) + client.begun;
    rest[0].iov_len -= client.begun;
    return ::writev(client.socket, rest.data(), static_cast<int>(count));
  }

  void advance(Client& client, std::size_t octets) const {
    const auto whole = (client.begun + octets) / frameSize_;
    client.begun = (client.begun + octets) % frameSize_;
    client.queued -= whole;
    client.next = (client.next + whole) % kBurst;
  }

  const Frames& frames_;
  const std::size_t frameSize_;
  std::vector<iovec> table_;
  int listener_ = -1;
  int epoll_ = -1;
  int wake_ = -1;
  std::deque<Client> clients_;
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<BurstServer> makeEpollServer(std::uint16_t port, const Frames& frames) {
  return std::make_unique<EpollServer>(port, frames);
}

}  // namespace tarnlink::bench
