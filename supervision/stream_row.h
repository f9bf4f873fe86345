// What is known of one stream: a row of the table that clients see.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "goosestack/mac_address.h"
#include "supervision/stream_event.h"
#include "supervision/stream_time.h"

namespace tarnlink {

/// Messages a second, measured from message to message over a second at least.
class RateMeter {
 public:
  void start(StreamTime at) {
    start_ = at;
    count_ = 0;
  }
  void add(StreamTime at) {
    ++count_;
    const std::chrono::microseconds elapsed = at - start_;
    if (elapsed >= kMeasureFor) rate_ = count_ * 1e6 / static_cast<double>(elapsed.count());
    if (elapsed >= kMeasureFor || elapsed.count() < 0) start(at);
  }
  /// No more than what is still possible when nothing has come until `now`.
  double perSecond(StreamTime now) const {
    const std::chrono::duration<double> elapsed = now - start_;
    if (elapsed.count() <= 0) return rate_;
    if (rate_ == 0) return count_ / elapsed.count();
    return std::min(rate_, (count_ + 1) / elapsed.count());
  }

 private:
  static constexpr std::chrono::microseconds kMeasureFor{1'000'000};

  StreamTime start_{};
  std::uint32_t count_ = 0;
  double rate_ = 0;
};

/// A plain value. Texts hold 255 octets at most; what is longer is cut.
struct StreamRow {
  std::uint32_t id = 0;  ///< From 1 on, never used again.
  StreamKind kind = StreamKind::goose;
  bool isLive = true;

  std::string name;                    ///< goCBRef or svID.
  std::string goId;                    ///< GOOSE.
  std::optional<std::string> dataSet;  ///< Nothing in Sampled Values without.
  std::uint16_t appId = 0;
  goosestack::MacAddress srcMac{};
  goosestack::MacAddress dstMac{};
  std::optional<std::uint16_t> vlanId;       ///< Not of a priority tag, whose identifier is 0.
  std::optional<std::uint8_t> vlanPriority;  ///< Of any tag.
  bool simulation = false;
  std::uint32_t confRev = 0;

  // GOOSE.
  bool needsCommission = false;
  std::uint32_t stNum = 0;
  std::uint32_t sqNum = 0;
  std::uint32_t entries = 0;            ///< As sent.
  std::uint32_t timeAllowedToLive = 0;  ///< Milliseconds.
  std::uint64_t stateChanges = 0;
  StreamTime lastChange{};  ///< When stNum changed last; the first message where it never did.

  // Sampled Values.
  std::uint16_t smpCnt = 0;
  std::uint8_t smpSynch = 0;
  std::uint32_t asdus = 0;         ///< Of the last frame, all of its streams together.
  std::uint32_t sampleOctets = 0;  ///< Of one ASDU; says the layout.
  std::uint32_t smpCntWrap = 0;    ///< Numbers from 0 to below this one; 0: not known yet.
  double measuredSampleRate = 0;   ///< Samples a second by arrival; 0: not known yet.

  StreamTime firstSeen{};
  StreamTime lastSeen{};
  std::uint64_t messages = 0;
  RateMeter rate;
  std::chrono::microseconds pastDowntime{};  ///< All of it that has ended.
  StreamTime expiredAt{};                    ///< Where not live.
  FaultCounts faults;

  double ratePerSecond(StreamTime now) const { return isLive ? rate.perSecond(now) : 0; }

  /// A running one included.
  std::chrono::microseconds downtime(StreamTime now) const {
    return pastDowntime + (isLive || now < expiredAt ? StreamTime::duration(0) : now - expiredAt);
  }

  /// Samples a second: what the counter wraps at, where that is a second's, else as measured.
  double samplesPerSecond() const {
    const double wrap = smpCntWrap;
    const bool isASecond =
        measuredSampleRate == 0 || std::abs(wrap - measuredSampleRate) < 0.02 * wrap;
    return smpCntWrap != 0 && isASecond ? wrap : measuredSampleRate;
  }
};

}  // namespace tarnlink
