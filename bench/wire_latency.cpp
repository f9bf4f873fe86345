#include "bench/wire_latency.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "bench/sample_traffic.h"
#include "bench/wire_traffic.h"
#include "stack/pcap_access.h"

namespace tarnlink::bench {
namespace {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;
using Times = std::vector<Clock::time_point>;

constexpr std::size_t kEventOctets = 739;  // Of the eight-value event, frame header included.
constexpr std::chrono::seconds kPatience{10};

/// Calls `step` with 0, 1, ... a millisecond apart.
template <class Step>
void paced(Step step) {
  auto next = Clock::now();
  for (int i = 0; i < LatencyRun::kFrames; ++i) {
    std::this_thread::sleep_until(next += LatencyRun::kSpacing);
    step(static_cast<std::size_t>(i));
  }
}

Times sendPaced(const std::string& interface, const std::vector<Bytes>& frames) {
  FrameFlood wire(interface);
  Times sent(frames.size());
  paced([&](std::size_t i) {
    sent[i] = Clock::now();
    wire.sendOne(frames[i]);
  });
  return sent;
}

Latency between(const Times& sent, const Times& received) {
  if (received.size() < sent.size()) throw std::runtime_error("frames were lost");
  std::vector<double> times;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    times.push_back(std::chrono::duration<double, std::micro>(received[i] - sent[i]).count());
  }
  return Latency::of(std::move(times));
}

}  // namespace

Latency Latency::of(std::vector<double> microseconds) {
  std::sort(microseconds.begin(), microseconds.end());
  const auto at = [&](std::size_t percent) {
    return microseconds.at((microseconds.size() - 1) * percent / 100);
  };
  return {at(50), at(99)};
}

LatencyRun::LatencyRun(std::string bus, std::string ied)
    : bus_(std::move(bus)), ied_(std::move(ied)) {
  for (std::uint32_t i = 0; i < kFrames; ++i) frames_.push_back(eightValueFrame(i));
}

Latency LatencyRun::wireToClient(const BridgeUnderLoad& bridge) {
  const auto client = bridge.connect();
  client->say(R"({"cmd":"subscribe_goose"})");
  client->nextNamed("bridge_status");
  auto received = std::async(std::launch::async, [&] {
    Times times;
    while (times.size() < kFrames) {
      const auto event = client->next();
      const auto now = Clock::now();
      if (!EventReader::isNamed(event, "goose_message")) continue;
      if (EventReader::number(event, "sqNum") != static_cast<std::int64_t>(times.size())) {
        throw std::runtime_error("a frame is missing");
      }
      times.push_back(now);
    }
    return times;
  });
  const auto sent = sendPaced(ied_, frames_);
  const auto times = received.get();
  client->say(R"({"cmd":"unsubscribe_goose"})");
  client->nextNamed("bridge_status");
  return between(sent, times);
}

Latency LatencyRun::wireToCapture() {
  const auto handle =
      openPcapWithFilter(bus_, "0x88b8", kSnapshotLength, CaptureMode::lowLatency).value();
  Times times;
  auto receiving = std::async(std::launch::async, [&] {
    constexpr auto take = [](u_char* user, const pcap_pkthdr*, const u_char*) {
      reinterpret_cast<Times*>(user)->push_back(Clock::now());
    };
    while (times.size() < kFrames &&
           pcap_dispatch(handle.get(), -1, take, reinterpret_cast<u_char*>(&times)) >= 0) {
    }
  });
  const auto sent = sendPaced(ied_, frames_);
  if (receiving.wait_for(kPatience) != std::future_status::ready) pcap_breakloop(handle.get());
  receiving.get();
  return between(sent, times);
}

Latency LatencyRun::loopbackRoundTrip() {
  using asio::ip::tcp;
  asio::io_context io;
  tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
  tcp::socket near(io);
  near.connect(acceptor.local_endpoint());
  tcp::socket far = acceptor.accept();
  near.set_option(tcp::no_delay(true));
  far.set_option(tcp::no_delay(true));
  std::thread echo([&far] {
    std::array<char, kEventOctets> octets{};
    for (int i = 0; i < kFrames; ++i) {
      asio::read(far, asio::buffer(octets));
      asio::write(far, asio::buffer(octets));
    }
  });
  std::array<char, kEventOctets> octets{};
  Times sent(kFrames);
  Times received(kFrames);
  paced([&](std::size_t i) {
    sent[i] = Clock::now();
    asio::write(near, asio::buffer(octets));
    asio::read(near, asio::buffer(octets));
    received[i] = Clock::now();
  });
  echo.join();
  return between(sent, received);
}

}  // namespace tarnlink::bench
