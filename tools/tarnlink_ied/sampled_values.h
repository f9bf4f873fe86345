// The frames of a merging unit as IEC 61850-9-2LE has them: MSVCB01 with the dataset PhsMeas1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "goosestack/bytes.h"
#include "goosestack/mac_address.h"

namespace tarnlink {

struct SvStreamConfig {
  std::uint16_t appId = 0x4000;  ///< The first that IEC 61850-9-2 has for SV.
  std::string svId = "BAY1MU01";
  std::uint32_t confRev = 1;
  std::uint8_t smpSynch = 0;  ///< Not synchronised: the sample counter starts at any time.
  /// Samples a second, 1 to kMaxRate. 9-2LE has 80 a period: 4,000 at 50 Hz.
  std::uint32_t rate = kNominalRate;
  goosestack::MacAddress dstMac{0x01, 0x0C, 0xCD, 0x04, 0x00, 0x01};

  static constexpr std::uint32_t kNominalRate = 4000;
  static constexpr std::uint32_t kMaxRate = 50'000;  ///< The counter has 16 bits.
};

/// Three phase currents of 400 A and voltages of 110 kV / sqrt(3), their neutrals, 50 Hz. One
/// sample a frame; each second has the same ones, reckoned at construction. One thread.
class SampledValues {
 public:
  static constexpr std::size_t kChannels = 8;

  SampledValues(const SvStreamConfig& config, const goosestack::MacAddress& source);

  std::uint32_t rate() const { return rate_; }

  /// The whole frame, tagged and unpadded, with sample counter `number` modulo the rate (IEC
  /// 61850-9-2: the counter returns to 0 each second). Borrowed until the next call.
  goosestack::ByteView frame(std::uint64_t number);

 private:
  std::uint32_t rate_;
  goosestack::Bytes frame_;
  std::size_t smpCntOffset_ = 0;
  std::vector<std::uint8_t> samples_;  ///< `rate_` times the content of `sample`.
};

}  // namespace tarnlink
