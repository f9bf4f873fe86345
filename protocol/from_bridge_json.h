// Publication requests and dataset values from JSON of the protocol. Pure functions, safe from any
// thread.
#pragma once

#include <boost/system/result.hpp>
#include <optional>
#include <string_view>

#include "goosestack/goose_data_value.h"
#include "goosestack/goose_publish_config.h"
#include "goosestack/mac_address.h"
#include "protocol/json.h"
#include "protocol/member_reader.h"

namespace tarnlink {

/// Six pairs of hexadecimal digits separated by ":" or "-"; surplus separators are ignored.
std::optional<goosestack::MacAddress> parseMacAddress(std::string_view text);

/// The same rule under the name that publication requests know it by.
inline std::optional<goosestack::MacAddress> parseMac(std::string_view text) {
  return parseMacAddress(text);
}

/// What a tag of IEEE 802.1Q carries; 4095 is reserved. A lenient reading takes more.
inline constexpr IntegerRange kVlanIds{0, 4094};
inline constexpr IntegerRange kVlanPriorities{0, 7};

/// A reader of a command, which knows the members that all of them may have.
MemberReader commandMembers(const Json& object, Reading reading);

/// Nothing without such a member. Text that is no address is a fault where the reading is strict.
std::optional<goosestack::MacAddress> readMac(MemberReader& members, std::string_view key);

/// Defined for GooseDataValue and GoosePublishConfig.
template <class Record>
boost::system::result<Record, Unreadable> fromBridgeJson(const Json& object,
                                                         Reading reading = Reading::lenient);

template <>
boost::system::result<goosestack::GooseDataValue, Unreadable> fromBridgeJson(const Json& object,
                                                                             Reading reading);
template <>
boost::system::result<goosestack::GoosePublishConfig, Unreadable> fromBridgeJson(const Json& object,
                                                                                 Reading reading);

}  // namespace tarnlink
