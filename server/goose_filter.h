// Which GOOSE messages a subscriber wants.
#pragma once

#include <optional>
#include <string>

#include "goosestack/goose_message.h"

namespace tarnlink {

/// A plain value. Absent and empty fields match every message.
struct GooseFilter {
  /// Decimal text of the one APPID wanted, compared character for character.
  std::optional<std::string> appIdFilter;
  /// A piece of text that the message's goCBRef must contain.
  std::optional<std::string> goCBRefFilter;

  bool matches(const goosestack::GooseMessage& message) const;
};

}  // namespace tarnlink
