// Points in time of the stack: seconds since 1970-01-01T00:00:00Z as a 64-bit float, which holds
// the 2^-24 s steps of an IEC 61850 UtcTime to 2^-22 s until the year 2106.
#pragma once

#include <chrono>

namespace goosestack {

using TimePoint = std::chrono::sys_time<std::chrono::duration<double>>;

constexpr TimePoint timeFromUnixSeconds(double seconds) {
  return TimePoint(std::chrono::duration<double>(seconds));
}

constexpr double unixSeconds(TimePoint time) {
  return time.time_since_epoch().count();
}

inline TimePoint timeNow() {
  return TimePoint(std::chrono::system_clock::now());
}

/// 0001-01-01T00:00:00Z: stands for a time that could not be read.
inline constexpr TimePoint kDistantPast = timeFromUnixSeconds(-62135596800.0);

}  // namespace goosestack
