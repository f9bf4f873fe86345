// What tests of the publishers share: a wire that records, and a publication to start from.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "goosestack/goose_publish_config.h"
#include "stack/send_handle.h"

namespace tarnlink::test {

inline constexpr goosestack::MacAddress kBusMac{0x02, 0, 0, 0, 0, 0x0A};
inline constexpr goosestack::MacAddress kOtherMac{0x02, 0, 0, 0, 0, 0x0B};

struct SentFrame {
  std::string interface;
  goosestack::Bytes octets;
  int priority = -1;  ///< -1 when none was ever set.
};

/// Interfaces "bus0" and "bus1", and "nomac0" without an address; no others. Safe from any thread.
class FakeWire final : public goosestack::SendHandleSource,
                       public std::enable_shared_from_this<FakeWire> {
 public:
  using Outcome = goosestack::SendOutcome;

  goosestack::GooseResult<std::unique_ptr<goosestack::SendHandle>> openSendHandle(
      const std::string& interface) override {
    if (!macs_.contains(interface)) return goosestack::GooseError::pcapOpenFailed("no device");
    ++opened;
    ++open;
    return std::make_unique<Handle>(shared_from_this(), interface);
  }
  std::optional<goosestack::MacAddress> macAddressBytes(const std::string& interface) override {
    return macs_.at(interface);
  }

  /// What becomes of the next calls that send; afterwards everything passes again.
  void outcomesOf(std::deque<Outcome> outcomes) {
    const std::lock_guard hold(lock_);
    outcomes_ = std::move(outcomes);
  }
  std::vector<SentFrame> sent() const {
    const std::lock_guard hold(lock_);
    return sent_;
  }

  std::atomic<int> opened = 0;  ///< Handles ever.
  std::atomic<int> open = 0;

 private:
  class Handle final : public goosestack::SendHandle {
   public:
    Handle(std::shared_ptr<FakeWire> wire, std::string interface)
        : wire_(std::move(wire)), interface_(std::move(interface)) {}
    ~Handle() override { --wire_->open; }
    Outcome sendPacket(goosestack::ByteView frame) override { return inject(frame); }
    Outcome inject(goosestack::ByteView frame) override {
      const std::lock_guard hold(wire_->lock_);
      Outcome outcome;
      if (!wire_->outcomes_.empty()) {
        outcome = wire_->outcomes_.front();
        wire_->outcomes_.pop_front();
      }
      if (outcome.status == Outcome::Status::sent) {
        wire_->sent_.push_back({interface_, {frame.begin(), frame.end()}, priority_});
      }
      return outcome;
    }
    bool isOn(const std::string& interface) const override { return interface == interface_; }
    void setPriority(std::uint8_t priority) override { priority_ = priority; }

   private:
    std::shared_ptr<FakeWire> wire_;
    std::string interface_;
    int priority_ = -1;
  };

  const std::map<std::string, std::optional<goosestack::MacAddress>> macs_{
      {"bus0", kBusMac}, {"bus1", kOtherMac}, {"nomac0", std::nullopt}};
  mutable std::mutex lock_;
  std::deque<Outcome> outcomes_;
  std::vector<SentFrame> sent_;
};

inline goosestack::GoosePublishConfig publication(goosestack::RetransmissionProfile profile) {
  goosestack::GoosePublishConfig config{};
  config.appId = 0x3001;
  config.goCBRef = "IED1LD0/LLN0$GO$gcb1";
  config.dataSetRef = "IED1LD0/LLN0$ds1";
  config.goId = "gcb1";
  config.confRev = 3;
  config.vlanPriority = 4;
  config.dstMac = {0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  config.retransmissionProfile = std::move(profile);
  config.values = {goosestack::GooseDataValue::boolean(true)};
  config.interface = "bus0";
  config.timeAllowedToLive = 2000;
  return config;
}

}  // namespace tarnlink::test
