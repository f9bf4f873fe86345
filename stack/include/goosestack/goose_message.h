// One received GOOSE message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "goosestack/flutter_dict.h"
#include "goosestack/goose_data_value.h"
#include "goosestack/time_point.h"

namespace goosestack {

/// A plain value: made by the receiver from a decoded PDU and its frame.
struct GooseMessage {
  std::uint16_t appId = 0;
  std::string goCBRef;
  std::string dataSet;
  std::string goId;
  TimePoint timestamp{};  ///< `t` of the PDU: the time of the last state change.
  std::uint32_t stNum = 0;
  std::uint32_t sqNum = 0;
  bool simulation = false;
  bool needsCommission = false;
  std::uint32_t confRev = 0;
  std::uint32_t timeAllowedToLive = 0;  ///< Milliseconds.
  std::uint32_t numEntries = 0;         ///< As sent; not compared with `values`.
  std::vector<GooseDataValue> values;
  std::optional<std::string> srcMac;  ///< As formatMac() writes it.
  std::optional<std::string> dstMac;
  std::optional<std::uint16_t> vlanId;  ///< Present when the frame carried an 802.1Q tag.
  TimePoint receivedAt{};               ///< When the frame was captured.

  /// True when the message is older than `timeAllowedToLive`; one exactly that old is not stale.
  bool isStale(TimePoint now = timeNow()) const;

  bool isFirstTransmission() const { return sqNum == 0; }

  bool operator==(const GooseMessage&) const = default;

  /// This object with all storage behind it, unused storage included. Octets.
  std::size_t footprint() const;

  /// The message as a map for hosts that exchange such maps; absent optionals have no key.
  FlutterDict toFlutterDict() const;
};

}  // namespace goosestack
