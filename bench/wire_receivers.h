// Those who receive what the wire bench sends: the bridge in several roles, and what stands beside
// it.
#pragma once

#include <atomic>
#include <boost/asio/thread_pool.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "bench/bridge_under_load.h"
#include "stack/goose_receiver.h"
#include "stack/pcap_access.h"

namespace tarnlink::bench {

/// One at a time is on the wire. Throws std::runtime_error and std::system_error.
class Receiver {
 public:
  virtual ~Receiver() = default;
  /// Returns when every frame from now on counts.
  virtual void start() = 0;
  /// Frames received since start().
  virtual std::uint64_t count() = 0;
  virtual void stop() = 0;
};

/// Waits until so many frames have come, or none has for a while; gives the number.
std::uint64_t waitForFrames(Receiver& receiver, std::uint64_t expected);

/// pcap_dispatch with the bridge's own options, and a callback that only copies.
class BareLoop final : public Receiver {
 public:
  explicit BareLoop(std::string interface) : interface_(std::move(interface)) {}
  ~BareLoop() override { stop(); }
  void start() override;
  std::uint64_t count() override { return count_; }
  void stop() override;

 private:
  std::string interface_;
  PcapHandle handle_;
  std::atomic<std::uint64_t> count_{0};
  std::atomic<bool> isStopping_{false};
  std::thread thread_;
};

/// The bridge's receiver and event encoder in this process, without clients: every frame becomes a
/// text, which goes nowhere.
class TextMaker final : public Receiver {
 public:
  explicit TextMaker(std::string interface) : interface_(std::move(interface)) {}
  ~TextMaker() override { stop(); }
  void start() override;
  std::uint64_t count() override { return *count_; }
  void stop() override;

 private:
  std::string interface_;
  std::shared_ptr<std::atomic<std::uint64_t>> count_ =
      std::make_shared<std::atomic<std::uint64_t>>(0);
  std::optional<boost::asio::thread_pool> pool_;
  std::shared_ptr<GooseReceiver> receiver_;
};

/// A bridge whose one subscriber asks for a control block that is not on the wire: frames are
/// captured, decoded and compared with the filter.
class UnmatchedBridge final : public Receiver {
 public:
  explicit UnmatchedBridge(const BridgeUnderLoad& bridge) : bridge_(bridge) {}
  void start() override;
  std::uint64_t count() override;
  void stop() override;

 private:
  std::int64_t received();

  const BridgeUnderLoad& bridge_;
  std::unique_ptr<EventReader> client_;
  std::int64_t before_ = 0;
};

/// A bridge with one client that receives and reads everything.
class SubscribedBridge final : public Receiver {
 public:
  explicit SubscribedBridge(const BridgeUnderLoad& bridge) : bridge_(bridge) {}
  ~SubscribedBridge() override { stop(); }
  void start() override;
  std::uint64_t count() override { return count_; }
  void stop() override;

 private:
  void countEvents();

  const BridgeUnderLoad& bridge_;
  std::unique_ptr<EventReader> client_;
  std::atomic<std::uint64_t> count_{0};
  std::thread thread_;
};

}  // namespace tarnlink::bench
