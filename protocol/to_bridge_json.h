// Received messages and dataset values as JSON of the protocol. Pure functions, safe from any
// thread.
#pragma once

#include "goosestack/goose_data_value.h"
#include "goosestack/goose_message.h"
#include "protocol/json_writer.h"

namespace tarnlink {

/// A value becomes an object with its type name and one payload key. Strings that are not UTF-8 and
/// floats that are not finite fail the writer.
void toBridgeJson(const goosestack::GooseDataValue& value, JsonWriter& out);

/// Twelve keys, and "srcMac", "dstMac" and "vlanId" where the message has them.
void toBridgeJson(const goosestack::GooseMessage& message, JsonWriter& out);

}  // namespace tarnlink
