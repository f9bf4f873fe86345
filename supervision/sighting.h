// What the supervision is given of each frame. Everything is borrowed for the length of the call.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "goosestack/goose_data_value.h"
#include "goosestack/mac_address.h"
#include "supervision/stream_time.h"

namespace tarnlink {

/// The envelope and the capture's stamp.
struct FrameFacts {
  StreamTime at{};
  goosestack::MacAddress srcMac{};
  goosestack::MacAddress dstMac{};
  std::optional<std::uint16_t> vlanId{};  ///< 0 in a priority tag.
  std::optional<std::uint8_t> vlanPriority{};
};

struct GooseSighting {
  FrameFacts frame{};
  std::uint16_t appId = 0;
  std::string_view goCBRef{};
  std::string_view dataSet{};
  std::string_view goId{};
  goosestack::TimePoint timestamp{};  ///< `t`.
  std::uint32_t stNum = 0;
  std::uint32_t sqNum = 0;
  bool simulation = false;
  bool needsCommission = false;
  std::uint32_t confRev = 0;
  std::uint32_t timeAllowedToLive = 0;  ///< Milliseconds.
  std::uint32_t numEntries = 0;         ///< As sent.
  std::span<const goosestack::GooseDataValue> values{};
};

}  // namespace tarnlink
