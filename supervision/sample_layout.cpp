#include "supervision/sample_layout.h"

#include <algorithm>

namespace tarnlink {
namespace {

constexpr std::size_t kPairOctets = 8;
constexpr std::size_t k92LeOctets = 64;
constexpr double kCurrentScale = 0.001;
constexpr double kVoltageScale = 0.01;

std::uint32_t readUInt32(goosestack::ByteView octets, std::size_t at) {
  std::uint32_t value = 0;
  for (const std::uint8_t octet : octets.subspan(at, 4)) value = value << 8 | octet;
  return value;
}

}  // namespace

SampleLayout SampleLayout::of(std::size_t octets) {
  if (octets == k92LeOctets) {
    SampleLayout layout{"9-2LE", {}};
    for (const char* name : {"IA", "IB", "IC", "IN"}) {
      layout.channels.push_back({name, "A", kCurrentScale});
    }
    for (const char* name : {"VA", "VB", "VC", "VN"}) {
      layout.channels.push_back({name, "V", kVoltageScale});
    }
    return layout;
  }
  SampleLayout layout;
  if (octets % kPairOctets != 0) return layout;
  for (std::size_t i = 1; i <= std::min(octets / kPairOctets, kMaxChannels); ++i) {
    layout.channels.push_back({std::to_string(i), {}, 1});
  }
  return layout;
}

std::int32_t sampleValue(goosestack::ByteView samples, std::size_t channel) {
  return static_cast<std::int32_t>(readUInt32(samples, channel * kPairOctets));
}

std::uint32_t sampleQuality(goosestack::ByteView samples, std::size_t channel) {
  return readUInt32(samples, channel * kPairOctets + 4);
}

}  // namespace tarnlink
