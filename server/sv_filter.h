// Which Sampled Values a subscriber wants.
#pragma once

#include <cstdint>
#include <optional>

#include "goosestack/sv_records.h"

namespace tarnlink {

/// A plain value. Without an APPID it matches every frame, and every filter matches a frame that is
/// too short for one.
struct SvFilter {
  std::optional<std::int64_t> appId;

  bool matches(const goosestack::SvCapturedFrame& frame) const {
    return !appId || frame.pdu.size() < 2 || *appId == (frame.pdu[0] << 8 | frame.pdu[1]);
  }
};

}  // namespace tarnlink
