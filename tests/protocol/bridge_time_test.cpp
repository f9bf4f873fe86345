#include "protocol/bridge_time.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace tarnlink {
using namespace goosestack;
namespace {

TEST(BridgeTimeTest, WrittenTimesAreRoundedAndBounded) {
  const std::pair<double, std::string> cases[] = {
      {1715933730.125, "2024-05-17T08:15:30.125Z"},
      {0, "1970-01-01T00:00:00.000Z"},
      {-0.001, "1969-12-31T23:59:59.999Z"},
      {-0.0001, "1970-01-01T00:00:00.000Z"},
      {1715933730.1246, "2024-05-17T08:15:30.125Z"},
      {1735689599.9996, "2025-01-01T00:00:00.000Z"},
      {951782400.0, "2000-02-29T00:00:00.000Z"},
      {4294967295.999, "2106-02-07T06:28:15.999Z"},
      {unixSeconds(kDistantPast), "0001-01-01T00:00:00.000Z"},
      {-std::numeric_limits<double>::infinity(), "0001-01-01T00:00:00.000Z"},
      {std::nan(""), "0001-01-01T00:00:00.000Z"},
      {253402300799.999, "9999-12-31T23:59:59.999Z"},
      {253402300799.9998, "9999-12-31T23:59:59.999Z"},
      {1e300, "9999-12-31T23:59:59.999Z"}};
  for (const auto& [seconds, text] : cases) {
    const TimePoint time = timeFromUnixSeconds(seconds);
    EXPECT_EQ(bridgeIso8601Formatter.string(time), text);
    EXPECT_EQ(bridgeIso8601Formatter.string(parseBridgeIso8601(text).value()), text);
    EXPECT_EQ(bridgeIso8601FormatterNoFraction.string(time), text.substr(0, 19) + "Z");
  }
}

TEST(BridgeTimeTest, TextOfAnotherFormIsRefused) {
  EXPECT_EQ(parseBridgeIso8601("2024-05-17T08:15:30Z"), timeFromUnixSeconds(1715933730));
  EXPECT_EQ(parseBridgeIso8601("2024-05-17T08:15:30.500Z"), timeFromUnixSeconds(1715933730.5));
  // clang-format off
  for (const std::string text :
       {"", "2024-05-17T08:15:30", "2024-05-17T08:15:30+00:00", "2024-05-17 08:15:30Z",
        "2024-05-17T08:15:30.Z", "2024-05-17T08:15:30.1Z", "2024-05-17T08:15:30.1234Z",
        "2024-05-17T08:15:30Zx", "2024-5-17T08:15:30Z", "2024-00-17T08:15:30Z",
        "2024-13-17T08:15:30Z", "2024-04-31T08:15:30Z", "1900-02-29T08:15:30Z",
        "0000-01-01T00:00:00Z", "2024-05-17T24:00:00Z", "2024-05-17T08:60:30Z",
        "2024-05-17T08:15:60Z", "2024-05-17T08:15:-1Z", "2024-05-17T08:15:3:Z"}) {
    // clang-format on
    EXPECT_FALSE(parseBridgeIso8601(text)) << text;
  }
}

}  // namespace
}  // namespace tarnlink
