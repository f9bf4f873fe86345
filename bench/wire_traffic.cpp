#include "bench/wire_traffic.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <thread>

namespace tarnlink::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kFramesPerCall = 64;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

FrameFlood::FrameFlood(const std::string& interface)
    : socket_(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
  const int yes = 1;
  if (socket_ < 0 ||
      ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::setsockopt(socket_, SOL_PACKET, PACKET_QDISC_BYPASS, &yes, sizeof yes) != 0) {
    fail("the sender's packet socket");
  }
}

FrameFlood::~FrameFlood() {
  ::close(socket_);
}

void FrameFlood::sendOne(ByteView frame) {
  if (::send(socket_, frame.data(), frame.size(), 0) < 0) fail("send");
}

FrameFlood::Sent FrameFlood::run(ByteView frame, double rate, std::chrono::duration<double> time) {
  iovec piece{const_cast<std::uint8_t*>(frame.data()), frame.size()};
  std::array<mmsghdr, kFramesPerCall> batch{};
  for (mmsghdr& message : batch) {
    message.msg_hdr.msg_iov = &piece;
    message.msg_hdr.msg_iovlen = 1;
  }
  const auto start = Clock::now();
  const auto elapsed = [start] { return std::chrono::duration<double>(Clock::now() - start); };
  std::uint64_t sent = 0;
  const auto send = [&](std::uint64_t count) {
    const auto frames = static_cast<unsigned>(std::min<std::uint64_t>(count, kFramesPerCall));
    const int taken = ::sendmmsg(socket_, batch.data(), frames, 0);
    if (taken < 0) fail("sendmmsg");
    sent += static_cast<unsigned>(taken);
  };
  if (rate == kFlatOut) {
    while (elapsed() < time) send(kFramesPerCall);
  } else {
    const auto total = static_cast<std::uint64_t>(rate * time.count());
    for (auto wake = start; sent < total;) {
      const auto due = static_cast<std::uint64_t>(rate * elapsed().count());
      while (sent < std::min(due, total)) send(std::min(due, total) - sent);
      // A sender that has fallen behind gives way all the same, as a wire does between frames.
      wake = std::max(wake + kTick, Clock::now());
      std::this_thread::sleep_until(wake);
    }
  }
  return {sent, static_cast<double>(sent) / elapsed().count()};
}

}  // namespace tarnlink::bench
