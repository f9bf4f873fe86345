#include "tools/tarnlink_ied/send_tally.h"

#include <utility>

#include "tools/common/command_line.h"

namespace tarnlink {
namespace {

class CountedSendHandle final : public goosestack::SendHandle {
 public:
  CountedSendHandle(std::unique_ptr<goosestack::SendHandle> handle, SendTally& tally)
      : handle_(std::move(handle)), tally_(tally) {}

  goosestack::SendOutcome sendPacket(goosestack::ByteView frame) override {
    if (!tally_.claim())
      return {goosestack::SendOutcome::Status::failed, "enough frames were sent"};
    auto outcome = handle_->sendPacket(frame);
    tally_.count(outcome);
    return outcome;
  }
  goosestack::SendOutcome inject(goosestack::ByteView frame) override { return sendPacket(frame); }
  bool isOn(const std::string& interface) const override {
    if (handle_->isOn(interface)) return true;
    tally_.interfaceGone();
    return false;
  }
  void setPriority(std::uint8_t priority) override { handle_->setPriority(priority); }

 private:
  std::unique_ptr<goosestack::SendHandle> handle_;
  SendTally& tally_;
};

class CountedSendHandles final : public goosestack::SendHandleSource {
 public:
  CountedSendHandles(std::shared_ptr<goosestack::SendHandleSource> source, SendTally& tally)
      : source_(std::move(source)), tally_(tally) {}

  goosestack::GooseResult<std::unique_ptr<goosestack::SendHandle>> openSendHandle(
      const std::string& interface) override {
    auto handle = source_->openSendHandle(interface);
    if (!handle) return handle.error();
    return std::make_unique<CountedSendHandle>(std::move(*handle), tally_);
  }
  std::optional<goosestack::MacAddress> macAddressBytes(const std::string& interface) override {
    return source_->macAddressBytes(interface);
  }

 private:
  std::shared_ptr<goosestack::SendHandleSource> source_;
  SendTally& tally_;
};

}  // namespace

bool SendTally::claim() {
  if (!limit_ || ++claimed_ <= *limit_) return true;
  --claimed_;
  return false;
}

void SendTally::count(const goosestack::SendOutcome& outcome) {
  if (outcome.status == goosestack::SendOutcome::Status::sent) {
    ++sent_;
  } else {
    ++failed_;
    --claimed_;
    if (outcome.status == goosestack::SendOutcome::Status::interfaceGone) isInterfaceGone_ = true;
  }
  if (isOver()) onEnd_();
}

void SendTally::interfaceGone() {
  isInterfaceGone_ = true;
  onEnd_();
}

std::string SendTally::text() const {
  std::string text = "Sent " + framesText(sent_);
  if (failed_ > 0) text += "; " + std::to_string(failed_) + " could not be sent";
  return text;
}

std::shared_ptr<goosestack::SendHandleSource> countedSendHandles(
    std::shared_ptr<goosestack::SendHandleSource> source, SendTally& tally) {
  return std::make_shared<CountedSendHandles>(std::move(source), tally);
}

}  // namespace tarnlink
