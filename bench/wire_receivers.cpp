#include "bench/wire_receivers.h"

#include <pcap/pcap.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_future.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "server/bridge_event_encoder.h"

namespace tarnlink::bench {
namespace {

namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;
using Counter = std::shared_ptr<std::atomic<std::uint64_t>>;

// Longer than a capture's read time-out.
constexpr std::chrono::milliseconds kQuiet{400};
constexpr std::chrono::milliseconds kPoll{5};
constexpr const char* kGooseEtherType = "0x88b8";

struct Copier {
  std::atomic<std::uint64_t>& count;
  char octets[kSnapshotLength];

  static void take(u_char* user, const pcap_pkthdr* header, const u_char* packet) {
    auto& self = *reinterpret_cast<Copier*>(user);
    std::memcpy(self.octets, packet, header->caplen);
    self.count.fetch_add(1, std::memory_order_relaxed);
  }
};

asio::awaitable<void> makeTexts(MessageStream<GooseMessage> stream, Counter count) {
  MessageStream<GooseMessage>::Batch batch;
  while (co_await stream.next(batch)) {
    for (const GooseMessage& message : batch.records()) {
      JsonWriter writer;
      BridgeEventEncoder::gooseMessage(message, writer);
    }
    count->fetch_add(batch.size());
  }
}

}  // namespace

std::uint64_t waitForFrames(Receiver& receiver, std::uint64_t expected) {
  std::uint64_t last = 0;
  for (auto end = Clock::now() + kQuiet; Clock::now() < end;) {
    const auto count = receiver.count();
    if (count >= expected) return count;
    if (count != last) end = Clock::now() + kQuiet;
    last = count;
    std::this_thread::sleep_for(kPoll);
  }
  return last;
}

void BareLoop::start() {
  handle_ = std::move(
      openPcapWithFilter(interface_, kGooseEtherType, kSnapshotLength, CaptureMode::lowLatency)
          .value());
  count_ = 0;
  isStopping_ = false;
  thread_ = std::thread([this] {
    const auto copier = std::make_unique<Copier>(Copier{count_, {}});
    auto* user = reinterpret_cast<u_char*>(copier.get());
    while (!isStopping_ && pcap_dispatch(handle_.get(), -1, Copier::take, user) >= 0) {
    }
  });
}

void BareLoop::stop() {
  if (!thread_.joinable()) return;
  isStopping_ = true;
  pcap_breakloop(handle_.get());
  thread_.join();
  handle_.reset();
}

void TextMaker::start() {
  pool_.emplace(1);
  *count_ = 0;
  receiver_ = std::make_shared<GooseReceiver>(pool_->executor(), CaptureMode::lowLatency);
  auto work = receiver_->start(interface_, {});
  auto stream = asio::co_spawn(*pool_, std::move(work), asio::use_future).get();
  asio::co_spawn(*pool_, makeTexts(std::move(stream.value()), count_), asio::detached);
}

void TextMaker::stop() {
  if (!receiver_) return;
  asio::co_spawn(*pool_, receiver_->stop(), asio::use_future).get();
  receiver_.reset();
  pool_->join();
}

void UnmatchedBridge::start() {
  client_ = bridge_.connect();
  before_ = received();
}

std::uint64_t UnmatchedBridge::count() {
  return static_cast<std::uint64_t>(received() - before_);
}

// Each subscription is answered with the status, the first as well as one that changes nothing.
std::int64_t UnmatchedBridge::received() {
  client_->say(R"({"cmd":"subscribe_goose","goCBRefFilter":"NOBODY"})");
  return EventReader::number(client_->nextNamed("bridge_status"), "messagesReceived");
}

void UnmatchedBridge::stop() {
  client_->say(R"({"cmd":"unsubscribe_goose"})");
  client_->nextNamed("bridge_status");
  client_.reset();
}

void SubscribedBridge::start() {
  client_ = bridge_.connect();
  client_->say(R"({"cmd":"subscribe_goose"})");
  client_->nextNamed("bridge_status");
  count_ = 0;
  thread_ = std::thread([this] {
    try {
      countEvents();
    } catch (const std::exception& error) {
      // A client that reads too slowly is dropped: the frames that it misses are lost ones.
      std::fprintf(stderr, "the client: %s\n", error.what());
    }
  });
}

void SubscribedBridge::countEvents() {
  while (true) {
    const auto event = client_->next();
    if (EventReader::isNamed(event, "goose_message")) {
      count_.fetch_add(1, std::memory_order_relaxed);
    } else if (EventReader::isNamed(event, "bridge_status")) {
      return;  // The answer to the end of the subscription.
    }
  }
}

void SubscribedBridge::stop() {
  if (!thread_.joinable()) return;
  try {
    client_->say(R"({"cmd":"unsubscribe_goose"})");
  } catch (const std::exception&) {  // Dropped: the thread has said so.
  }
  thread_.join();
  client_.reset();
}

}  // namespace tarnlink::bench
