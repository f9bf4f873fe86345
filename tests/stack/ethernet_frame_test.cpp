#include "goosestack/ethernet_frame.h"

#include <gtest/gtest.h>

#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

constexpr MacAddress kDestination{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
constexpr MacAddress kSource{0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};

Bytes frameOf(const std::string& rest) {
  return hexBytes("010CCD010001 02AABBCCDDEE " + rest);
}

TEST(EthernetFrame, Parsed) {
  const struct {
    const char* frame;  // Behind the addresses.
    std::uint16_t etherType;
    std::optional<std::uint16_t> vlanId;
    std::optional<std::uint8_t> vlanPriority;
    const char* payload;
  } cases[] = {
      {"88B8", kEtherTypeGoose, {}, {}, ""},
      {"88BA 4000 0010", kEtherTypeSv, {}, {}, "4000 0010"},
      {"8100 A064 88B8 0001", kEtherTypeGoose, 100, 5, "0001"},
      {"8100 B064 88BA 0001", kEtherTypeSv, 100, 5, "0001"},
      {"8100 E000 88B8", kEtherTypeGoose, 0, 7, ""},
  };
  for (const auto& [text, etherType, vlanId, vlanPriority, payload] : cases) {
    SCOPED_TRACE(text);
    const Bytes frame = frameOf(text);
    const auto parsed = EthernetFrame::parse(frame, etherType);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->dstMac, kDestination);
    EXPECT_EQ(parsed->srcMac, kSource);
    EXPECT_EQ(parsed->vlanId, vlanId);
    EXPECT_EQ(parsed->vlanPriority, vlanPriority);
    EXPECT_EQ(parsed->etherType, etherType);
    EXPECT_EQ(Bytes(parsed->payload.begin(), parsed->payload.end()), hexBytes(payload));
  }
}

TEST(EthernetFrame, OtherFramesAndEveryTruncatedHeaderAreNothing) {
  for (const char* frame :
       {"0800 0000", "88BA 0001", "8100 A064 88BA 0001", "8100 A064 8100 A064 88B8 0001"}) {
    EXPECT_FALSE(EthernetFrame::parse(frameOf(frame))) << frame;
  }
  // Prefixes of a larger buffer: an octet read beyond the end would be the expected one.
  for (const char* header : {"88B8", "8100 A064 88B8"}) {
    const Bytes frame = frameOf(header);
    for (std::size_t length = 0; length < frame.size(); ++length) {
      EXPECT_FALSE(EthernetFrame::parse(ByteView(frame).first(length))) << header << length;
    }
  }
}

TEST(EthernetFrame, Built) {
  const struct {
    std::uint16_t vlanId;
    std::uint8_t vlanPriority;
    std::uint16_t etherType;
    const char* expected;  // Behind the addresses.
  } cases[] = {
      {100, 4, kEtherTypeGoose, "8100 8064 88B8 0001"},
      {0, 4, kEtherTypeSv, "88BA 0001"},
      {100, 9, kEtherTypeGoose, "8100 2064 88B8 0001"},
      {0xFABC, 255, kEtherTypeGoose, "8100 EABC 88B8 0001"},
  };
  for (const auto& [vlanId, vlanPriority, etherType, expected] : cases) {
    EXPECT_EQ(EthernetFrame::build(kDestination, kSource, vlanId, vlanPriority, hexBytes("0001"),
                                   etherType),
              frameOf(expected));
  }
}

TEST(MacAddress, TextReplacesWhateverWasThere) {
  std::string text = "something longer than an address";
  formatMacInto(hexBytes("00 9F A0"), text);
  EXPECT_EQ(text, "00:9F:A0");
  formatMacInto({}, text);
  EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace tarnlink::test
