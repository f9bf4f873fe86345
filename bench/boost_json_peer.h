// The peer of the codec: Boost.JSON, which is no part of what ships.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tarnlink::bench {

/// Parses a text into a tree and drops it; true when it is JSON. Far from a decoded command, which
/// would still have to be read out of the tree.
bool parseByBoostJson(std::string_view text);

/// Each call makes that text anew from a tree which it builds by copying another: less than an
/// encoder has to do, which must fill it.
std::function<std::string()> boostJsonWriter(std::string_view text);

}  // namespace tarnlink::bench
