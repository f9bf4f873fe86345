// The six digits that a client must know.
#pragma once

#include <string>
#include <string_view>

#include "platform/preference_store.h"

namespace tarnlink {

inline constexpr std::string_view kPairingCodeKey = "pairingCode";

/// The stored code; a missing or malformed one is replaced by a new random one, which is stored.
/// Any thread.
std::string pairingCode(PreferenceStore& preferences);

/// Takes the same time wherever the texts differ, so that answers do not tell a code by pieces.
bool equalsInConstantTime(std::string_view left, std::string_view right);

}  // namespace tarnlink
