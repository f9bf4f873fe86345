// Times of the supervision: those of the capture's clock, whole microseconds.
#pragma once

#include <chrono>

#include "goosestack/time_point.h"

namespace tarnlink {

using StreamTime = std::chrono::sys_time<std::chrono::microseconds>;

inline StreamTime toStreamTime(goosestack::TimePoint time) {
  return std::chrono::round<std::chrono::microseconds>(time);
}

}  // namespace tarnlink
