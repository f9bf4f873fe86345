#include "tools/tarnlink_ied/sampled_values.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <string_view>

#include "ber/ber_writer.h"
#include "goosestack/ethernet_frame.h"

namespace tarnlink {
namespace {

// IEC 61850-9-2, table 14.
constexpr std::uint8_t kTagSavPdu = 0x60;
constexpr std::uint8_t kTagNoAsdu = 0x80;
constexpr std::uint8_t kTagSeqAsdu = 0xA2;
constexpr std::uint8_t kTagAsdu = 0x30;
constexpr std::uint8_t kTagSvId = 0x80;
constexpr std::uint8_t kTagSmpCnt = 0x82;
constexpr std::uint8_t kTagConfRev = 0x83;
constexpr std::uint8_t kTagSmpSynch = 0x85;
constexpr std::uint8_t kTagSample = 0x87;

// IEEE 802.1Q: priority 4, VLAN 0, which IEC 61850-9-2, table A.2 has unless configured otherwise
// and 9-2LE asks for.
constexpr std::array<std::uint8_t, 4> kPriorityTag{0x81, 0x00, 4 << 5, 0x00};
constexpr std::ptrdiff_t kTagAt = 12;  // Behind the two addresses.

constexpr std::size_t kSvHeaderLength = 8;  // Octets: APPID, length, two reserved words.
// Octets: each channel has an INT32 and 32 bits of quality.
constexpr std::size_t kSampleLength = SampledValues::kChannels * 8;

constexpr double kTurn = 6.283185307179586;
constexpr double kFrequency = 50;  // Hz
// 9-2LE: currents in units of 1 mA, voltages of 10 mV; peaks here.
constexpr double kCurrentPeak = 400.0 * 1.4142135623730951 * 1000;
constexpr double kVoltagePeak = 110'000.0 / 1.7320508075688772 * 1.4142135623730951 * 100;
constexpr double kLoadAngle = 0.3;  // Radians by which the currents lag.
// 9-2LE: the quality of values that are reckoned from others; all other bits zero: good.
constexpr std::uint32_t kDerived = 0x00002000;

void appendBigEndian(goosestack::Bytes& out, std::uint64_t value, std::size_t octets) {
  while (octets-- > 0) out.push_back(static_cast<std::uint8_t>(value >> 8 * octets));
}

/// Nothing here is longer than a frame, so nothing is refused.
void append(goosestack::Bytes& out, std::uint8_t tag, std::span<const std::uint8_t> value) {
  (void)goosestack::appendBerTLV(out, tag, value);
}

void append(goosestack::Bytes& out, std::uint8_t tag, std::uint64_t value, std::size_t octets) {
  goosestack::Bytes content;
  appendBigEndian(content, value, octets);
  append(out, tag, content);
}

/// Three phases and the neutral, which is the sum of the rounded others.
void appendSystem(goosestack::Bytes& out, double peak, double angle) {
  std::int32_t neutral = 0;
  for (int phase = 0; phase < 3; ++phase) {
    const auto value =
        static_cast<std::int32_t>(std::lround(peak * std::sin(angle - phase * kTurn / 3)));
    neutral += value;
    appendBigEndian(out, static_cast<std::uint32_t>(value), 4);
    appendBigEndian(out, 0, 4);
  }
  appendBigEndian(out, static_cast<std::uint32_t>(neutral), 4);
  appendBigEndian(out, kDerived, 4);
}

goosestack::Bytes oneSecond(std::uint32_t rate) {
  goosestack::Bytes samples;
  samples.reserve(rate * kSampleLength);
  for (std::uint32_t number = 0; number < rate; ++number) {
    const double angle = kTurn * kFrequency * number / rate;
    appendSystem(samples, kCurrentPeak, angle - kLoadAngle);
    appendSystem(samples, kVoltagePeak, angle);
  }
  return samples;
}

}  // namespace

SampledValues::SampledValues(const SvStreamConfig& config, const goosestack::MacAddress& source)
    : rate_(config.rate), samples_(oneSecond(config.rate)) {
  goosestack::Bytes asdu;
  append(asdu, kTagSvId,
         {reinterpret_cast<const std::uint8_t*>(config.svId.data()), config.svId.size()});
  append(asdu, kTagSmpCnt, 0, 2);
  const std::size_t smpCntAt = asdu.size() - 2;
  append(asdu, kTagConfRev, config.confRev, 4);
  append(asdu, kTagSmpSynch, config.smpSynch, 1);
  append(asdu, kTagSample, goosestack::Bytes(kSampleLength));
  goosestack::Bytes sequence;
  append(sequence, kTagAsdu, asdu);
  goosestack::Bytes content;
  append(content, kTagNoAsdu, 1, 1);
  append(content, kTagSeqAsdu, sequence);
  goosestack::Bytes apdu;
  append(apdu, kTagSavPdu, content);

  goosestack::Bytes payload;
  appendBigEndian(payload, config.appId, 2);
  appendBigEndian(payload, kSvHeaderLength + apdu.size(), 2);
  appendBigEndian(payload, 0, 4);
  payload.insert(payload.end(), apdu.begin(), apdu.end());
  frame_ = goosestack::EthernetFrame::build(config.dstMac, source, 0, 0, payload,
                                            goosestack::kEtherTypeSv);
  frame_.insert(frame_.begin() + kTagAt, kPriorityTag.begin(), kPriorityTag.end());
  // The ASDU is the frame's end.
  smpCntOffset_ = frame_.size() - (asdu.size() - smpCntAt);
}

goosestack::ByteView SampledValues::frame(std::uint64_t number) {
  const auto smpCnt = static_cast<std::size_t>(number % rate_);
  frame_[smpCntOffset_] = static_cast<std::uint8_t>(smpCnt >> 8);
  frame_[smpCntOffset_ + 1] = static_cast<std::uint8_t>(smpCnt);
  std::copy_n(samples_.begin() + static_cast<std::ptrdiff_t>(smpCnt * kSampleLength), kSampleLength,
              frame_.end() - static_cast<std::ptrdiff_t>(kSampleLength));
  return frame_;
}

}  // namespace tarnlink
