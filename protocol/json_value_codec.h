// The stack's records as JSON of the protocol: received messages and dataset values out,
// publication requests and dataset values in. Pure functions, safe from any thread.
#pragma once

#include <boost/system/result.hpp>
#include <optional>
#include <string_view>

#include "goosestack/goose_data_value.h"
#include "goosestack/goose_message.h"
#include "goosestack/goose_publish_config.h"
#include "goosestack/mac_address.h"
#include "protocol/json_value.h"
#include "protocol/json_writer.h"
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
MemberReader commandMembers(const JsonObject& object, Reading reading);

/// Nothing without such a member. Text that is no address is a fault where the reading is strict.
std::optional<goosestack::MacAddress> readMac(MemberReader& members, std::string_view key);

/// Defined for GooseDataValue and GoosePublishConfig.
template <class Record>
boost::system::result<Record, Unreadable> fromBridgeJson(const JsonObject& object,
                                                         Reading reading = Reading::lenient);

template <>
boost::system::result<goosestack::GooseDataValue, Unreadable> fromBridgeJson(
    const JsonObject& object, Reading reading);
template <>
boost::system::result<goosestack::GoosePublishConfig, Unreadable> fromBridgeJson(
    const JsonObject& object, Reading reading);

/// A value becomes an object with its type name and one payload key. Strings that are not UTF-8 and
/// floats that are not finite fail the writer.
void toBridgeJson(const goosestack::GooseDataValue& value, JsonWriter& out);

/// Twelve keys, and "srcMac", "dstMac" and "vlanId" where the message has them.
void toBridgeJson(const goosestack::GooseMessage& message, JsonWriter& out);

}  // namespace tarnlink
