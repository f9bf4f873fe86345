// Frames into one end of a veth pair, at a rate of the bench's.
#pragma once

#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>

#include "goosestack/bytes.h"

namespace tarnlink::bench {

/// The ends of the wire: the receivers' and the sender's.
inline constexpr const char* kBus = "bus0";
inline constexpr const char* kIed = "ied0";

/// Sends without the kernel's queues. One thread. Throws std::system_error.
class WireSender {
 public:
  static constexpr unsigned kMostAtOnce = 64;

  explicit WireSender(const std::string& interface) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
    const int yes = 1;
    check(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    check(::setsockopt(socket_, SOL_PACKET, PACKET_QDISC_BYPASS, &yes, sizeof yes));
  }
  ~WireSender() { ::close(socket_); }
  WireSender(const WireSender&) = delete;
  WireSender& operator=(const WireSender&) = delete;

  /// The same frame so many times, kMostAtOnce at most, with one system call.
  void send(goosestack::ByteView frame, unsigned count = 1) {
    iovec piece{const_cast<std::uint8_t*>(frame.data()), frame.size()};
    std::array<mmsghdr, kMostAtOnce> batch;
    for (unsigned i = 0; i < count; ++i) {
      batch.at(i) = {};
      batch.at(i).msg_hdr.msg_iov = &piece;
      batch.at(i).msg_hdr.msg_iovlen = 1;
    }
    while (count > 0) {
      count -= static_cast<unsigned>(check(::sendmmsg(socket_, batch.data(), count, 0)));
    }
  }

 private:
  static int check(int result) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), "packet socket");
    return result;
  }
  const int socket_ = check(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
};

/// Calls `step` with 0, 1, ... evenly spread. Late ones follow at once, but after a stall of the
/// bench itself no flood makes up for it.
template <class Step>
void paced(std::size_t count, std::chrono::nanoseconds spacing, Step step) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kStall{5};
  auto due = Clock::now();
  for (std::size_t i = 0; i < count; ++i) {
    std::this_thread::sleep_until(due);
    step(i);
    due = std::max(due, Clock::now() - kStall) + spacing;
  }
}

}  // namespace tarnlink::bench
