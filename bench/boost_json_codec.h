// The peer that the codec is measured against: the same texts through Boost.JSON, as its
// documentation shows it. Boost.JSON 1.81 is no part of what ships.
#pragma once

#include <string>
#include <string_view>

#include "stack/goose_message.h"
#include "stack/sv_records.h"

namespace tarnlink::bench {

std::string gooseEventByBoostJson(const GooseMessage& message);
std::string svEventByBoostJson(const SvCapturedFrame& frame);

/// Parses a text into a tree and drops it; true when it is JSON. Far from a decoded command, which
/// would still have to be read out of the tree.
bool parseByBoostJson(std::string_view text);

}  // namespace tarnlink::bench
