#include "stack/goose_publisher.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "goosestack/ethernet_frame.h"
#include "goosestack/real_time_thread.h"
#include "stack/run_on_strand.h"

namespace goosestack {
namespace {

// How long before a deadline the timer wakes the thread, which then builds the frame and waits for
// the rest: the way through the executor and the encoding are over when the deadline comes. Also
// how long a request may have to wait.
constexpr std::chrono::microseconds kLastStretch{500};
constexpr std::size_t kLoggedOctets = 64;

const SendRules kRules{[](const std::string& interface) {
                         return "Could not determine MAC address for interface '" + interface + "'";
                       },
                       "unknown pcap error", true};

std::string hexText(ByteView octets, char separator) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t octet : octets) {
    if (!text.empty()) text += separator;
    text += kDigits[octet >> 4];
    text += kDigits[octet & 0x0F];
  }
  return text;
}

GoosePdu pduOf(const GoosePublishConfig& config) {
  GoosePdu pdu;
  pdu.header.appId = config.appId;
  pdu.goCBRef = config.goCBRef;
  pdu.timeAllowedToLive = config.timeAllowedToLive;
  pdu.datSet = config.dataSetRef;
  pdu.goId = config.goId;
  pdu.simulation = config.simulation;
  pdu.confRev = config.confRev;
  pdu.ndsCom = config.ndsCom;
  pdu.allData = config.values;
  return pdu;
}

}  // namespace

std::shared_ptr<GoosePublishing> makeGoosePublisher(const boost::asio::any_io_executor& executor,
                                                    LogSink log) {
  return std::make_shared<GoosePublisher>(executor, std::move(log), systemSendHandles());
}

GoosePublisher::GoosePublisher(const boost::asio::any_io_executor& executor, LogSink log,
                               std::shared_ptr<SendHandleSource> handles)
    : strand_(boost::asio::make_strand(executor)),
      log_(std::move(log)),
      pcapHandle_(kRules, std::move(handles)),
      timer_(strand_) {}

boost::asio::awaitable<GooseResult<void>> GoosePublisher::publishStateChange(
    GoosePublishConfig config) {
  return runOnStrand(strand_, [self = shared_from_this(), config = std::move(config)] {
    return self->changeState(config);
  });
}

boost::asio::awaitable<void> GoosePublisher::unpublish(std::optional<std::string> goCBRef) {
  return runOnStrand(strand_, [self = shared_from_this(), goCBRef = std::move(goCBRef)] {
    const auto& config = self->lastConfig_;
    const bool isAnother = goCBRef && config && config->goCBRef != *goCBRef;
    if (!isAnother) self->endPublication();
  });
}

boost::asio::awaitable<void> GoosePublisher::stop() {
  return runOnStrand(strand_, [self = shared_from_this()] {
    self->endPublication();
    self->pcapHandle_.close();
  });
}

GooseResult<void> GoosePublisher::changeState(const GoosePublishConfig& config) {
  if (const auto opened = pcapHandle_.ensureHandle(config.interface); !opened) {
    return opened.error();
  }
  schedule_.stateChange(config);
  lastConfig_ = config;
  pdu_ = pduOf(config);
  pdu_.timestamp = timeNow();
  pdu_.stNum = schedule_.currentStNum();
  ++generationCount_;
  timer_.cancel();
  auto start = PublicationSchedule::Clock::now();
  if (auto sent = sendStateChange(start); !sent) return sent;
  tellChange({});
  schedule_.start(start);
  waitForDeadline();
  return {};
}

GooseResult<void> GoosePublisher::sendStateChange(PublicationSchedule::Clock::time_point& start) {
  const auto frame = buildFrame(schedule_.currentSqNum());
  if (!frame) return frame.error();
  // The schedule counts from the moment at which the frame is handed over.
  start = PublicationSchedule::Clock::now();
  return pcapHandle_.send(*frame, lastConfig_->vlanPriority);
}

void GoosePublisher::endPublication() {
  ++generationCount_;
  timer_.cancel();
  schedule_.end();
  lastConfig_.reset();
  isFailing_ = false;
}

void GoosePublisher::waitForDeadline() {
  const auto deadline = schedule_.nextDeadline();
  if (!deadline) return;
  timer_.expires_at(*deadline - kLastStretch);
  timer_.async_wait([weak = weak_from_this(),
                     generation = generationCount_](const boost::system::error_code& error) {
    if (error) return;
    if (const auto self = weak.lock()) self->sendWhenDue(generation);
  });
}

void GoosePublisher::sendWhenDue(std::uint64_t generation) {
  if (generation != generationCount_) return;
  pcapHandle_.restore();
  const auto frame = buildFrame(schedule_.nextSqNum());
  waitUntil(*schedule_.nextDeadline());
  schedule_.takeDue(PublicationSchedule::Clock::now());
  // A failure costs this frame only.
  tellChange(frame ? pcapHandle_.send(*frame, lastConfig_->vlanPriority) : frame.error());
  waitForDeadline();
}

void GoosePublisher::tellChange(const GooseResult<void>& sent) {
  if (isFailing_ == sent.has_error()) return;
  isFailing_ = sent.has_error();
  const std::string where = " on " + lastConfig_->interface;
  log_(isFailing_ ? "[Publisher] ✗ frames fail" + where + ": " + sent.error().description()
                  : "[Publisher] ✓ frames leave again" + where);
}

GooseResult<Bytes> GoosePublisher::buildFrame(std::uint32_t sqNum) {
  if (!pcapHandle_.isOpen()) return GooseError::notRunning();
  pdu_.sqNum = sqNum;
  const auto payload = GoosePdu::encode(pdu_);
  if (!payload) return payload.error();
  const GoosePublishConfig& config = *lastConfig_;
  const MacAddress& srcMac = config.srcMacOverride ? *config.srcMacOverride : pcapHandle_.srcMac();
  // `vlanTagged` and `vlanCfi` have no say: over a VLAN link of the system the identifier is 0.
  Bytes frame =
      EthernetFrame::build(config.dstMac, srcMac, config.vlanId, config.vlanPriority, *payload);
  if (sqNum == 0) logFrame(frame, srcMac);
  return frame;
}

void GoosePublisher::logFrame(ByteView frame, ByteView srcMac) const {
  log_("[Publisher] TX frame " + std::to_string(frame.size()) +
       "B dst=" + hexText(lastConfig_->dstMac, ':') + " src=" + hexText(srcMac, ':') +
       " stNum=" + std::to_string(schedule_.currentStNum()));
  const auto head = frame.first(std::min(kLoggedOctets, frame.size()));
  log_("[Publisher]   first 64B: " + hexText(head, ' '));
}

}  // namespace goosestack
