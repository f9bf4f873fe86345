#include "bench/wire.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tarnlink::bench {
using namespace goosestack;
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

WireSender::WireSender(const std::string& interface)
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

WireSender::~WireSender() {
  ::close(socket_);
}

void WireSender::send(ByteView frame, unsigned count) {
  iovec piece{const_cast<std::uint8_t*>(frame.data()), frame.size()};
  std::array<mmsghdr, kMostAtOnce> batch;
  for (unsigned i = 0; i < count; ++i) {
    batch.at(i) = {};
    batch.at(i).msg_hdr.msg_iov = &piece;
    batch.at(i).msg_hdr.msg_iovlen = 1;
  }
  for (unsigned sent = 0; sent < count;) {
    const int taken = ::sendmmsg(socket_, batch.data(), count - sent, 0);
    if (taken < 0) fail("sendmmsg");
    sent += static_cast<unsigned>(taken);
  }
}

CaptureThread::CaptureThread(const std::string& interface, std::function<void(ByteView)> take)
    : take_(std::move(take)),
      handle_(openPcapWithFilter(interface, "0x88b8", kSnapshotLength, CaptureMode::lowLatency)
                  .value()) {
  thread_ = std::thread([this] {
    constexpr auto kTake = [](u_char* self, const pcap_pkthdr* header, const u_char* packet) {
      reinterpret_cast<CaptureThread*>(self)->take_({packet, header->caplen});
    };
    auto* self = reinterpret_cast<u_char*>(this);
    while (!isStopping_ && pcap_dispatch(handle_.get(), -1, kTake, self) >= 0) {
    }
  });
}

CaptureThread::~CaptureThread() {
  isStopping_ = true;
  pcap_breakloop(handle_.get());
  thread_.join();
}

}  // namespace tarnlink::bench
