#include "server/goose_filter.h"

#include <array>
#include <charconv>
#include <string_view>

namespace tarnlink {

bool GooseFilter::matches(const goosestack::GooseMessage& message) const {
  if (appIdFilter && !appIdFilter->empty()) {
    std::array<char, 5> digits;  // 65535 at most.
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), message.appId).ptr;
    if (std::string_view(digits.data(), end) != *appIdFilter) return false;
  }
  return !goCBRefFilter || message.goCBRef.find(*goCBRefFilter) != std::string::npos;
}

}  // namespace tarnlink
