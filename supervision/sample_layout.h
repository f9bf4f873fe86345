// What the octets of an ASDU's sample mean: pairs of a value and a quality word, 4 octets each, big
// endian (IEC 61850-9-2, 61869-9). The layout of 9-2LE, which most merging units send, is known by
// its size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "goosestack/bytes.h"

namespace tarnlink {

struct SampleChannel {
  std::string name;
  std::string unit;  ///< Empty where it is not known.
  double scale = 1;  ///< Units per count.
};

/// A plain value.
struct SampleLayout {
  /// Channels of a sample that are read; further ones are left out.
  static constexpr std::size_t kMaxChannels = 64;

  std::string name;  ///< "9-2LE", else empty.
  std::vector<SampleChannel> channels;

  /// 64 octets: 4 currents in mA, 4 voltages in 10 mV. Other whole pairs: channels "1", "2", ...
  /// without units. Octets that are no whole pairs: no channels.
  static SampleLayout of(std::size_t octets);
};

/// Of a channel that the samples have.
std::int32_t sampleValue(goosestack::ByteView samples, std::size_t channel);
std::uint32_t sampleQuality(goosestack::ByteView samples, std::size_t channel);

}  // namespace tarnlink
