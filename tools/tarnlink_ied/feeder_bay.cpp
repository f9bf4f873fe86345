#include "tools/tarnlink_ied/feeder_bay.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <utility>

namespace tarnlink {
namespace {

using Value = goosestack::GooseDataValue;
using Values = std::vector<goosestack::GooseDataValue>;

constexpr std::uint16_t kTripVlan = 100;
// IEC 61850-8-1, annex C: the priority that GOOSE has unless configured otherwise.
constexpr std::uint8_t kGoosePriority = 4;

/// Quality (IEC 61850-8-1, 8.2): 13 bits, all zero for a good value.
Value goodQuality() {
  return Value::bitString(Value::BitString(13, false));
}

/// Dbpos (IEC 61850-8-1, 8.2): 00 intermediate, 01 off, 10 on.
Value position(bool first, bool second) {
  return Value::bitString({first, second});
}

/// A breaker that closes, trips, and is closed again: on, trip, moving, off, moving.
Values breaker(std::uint32_t state, goosestack::TimePoint changedAt) {
  static constexpr std::array<std::array<bool, 3>, 5> kCycle = {{
      // position, position, trip
      {true, false, false},
      {true, false, true},
      {false, false, true},
      {false, true, false},
      {false, false, false},
  }};
  const auto& [first, second, trip] = kCycle[state % kCycle.size()];
  return {position(first, second), goodQuality(), Value::utcTime(changedAt), Value::boolean(trip),
          goodQuality()};
}

/// Load that swings around 400 A with a period of 24 states.
float current(std::uint32_t state, float phaseShift) {
  constexpr float kCircle = 6.2831853F;
  return 400.0F + 25.0F * std::sin(static_cast<float>(state % 24) / 24.0F * kCircle + phaseShift);
}

/// Every type of value that a dataset can hold and a receiver understands.
Values measurements(std::uint32_t state, goosestack::TimePoint changedAt) {
  constexpr float kThirdOfCircle = 2.0943951F;
  const auto phase = [&](std::uint32_t number) {
    return Value::structure(
        {Value::floatingPoint(current(state, -kThirdOfCircle * static_cast<float>(number))),
         goodQuality()});
  };
  const auto tap = static_cast<std::int32_t>(state % 11) - 5;
  return {Value::boolean(tap >= 4),  // Tap position alarm.
          Value::integer(tap),
          Value::unsignedInteger(100000 + state),  // Operation counter.
          Value::array({phase(0), phase(1), phase(2)}),
          Value::visibleString(tap < 0 ? "lowering" : "raising"),
          Value::octetString({0x0A, static_cast<std::uint8_t>(state)}),
          goodQuality(),
          Value::utcTime(changedAt)};
}

/// Four switches: one opens, the one before it closes.
Values interlocking(std::uint32_t state, goosestack::TimePoint changedAt) {
  Values values;
  for (std::uint32_t number = 0; number < 4; ++number) {
    values.push_back(Value::boolean(state % 4 != number));
  }
  values.push_back(Value::utcTime(changedAt));
  return values;
}

goosestack::GoosePublishConfig blockConfig(std::uint16_t appId, const std::string& name,
                                           const std::string& interface) {
  goosestack::GoosePublishConfig config{};
  config.appId = appId;
  config.goCBRef = "BAY1LD0/LLN0$GO$gcb" + name;
  config.dataSetRef = "BAY1LD0/LLN0$ds" + name;
  config.goId = "BAY1_" + name;
  config.confRev = 1;
  config.vlanPriority = kGoosePriority;
  // IEC 61850-8-1, annex B: the multicast addresses for GOOSE.
  config.dstMac = {0x01, 0x0C, 0xCD, 0x01, 0x00, static_cast<std::uint8_t>(appId)};
  config.retransmissionProfile = goosestack::RetransmissionProfile::standard();
  config.timeAllowedToLive =
      static_cast<std::uint32_t>(2 * config.retransmissionProfile.heartbeatInterval);
  config.interface = interface;
  return config;
}

}  // namespace

std::vector<ControlBlock> feederBay(const std::string& interface) {
  auto trip = blockConfig(1, "Trip", interface);
  trip.vlanId = kTripVlan;
  trip.vlanTagged = true;
  return {{std::move(trip), breaker},
          {blockConfig(2, "Measurement", interface), measurements},
          {blockConfig(3, "Interlocking", interface), interlocking}};
}

}  // namespace tarnlink
