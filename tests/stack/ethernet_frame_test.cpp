#include "goosestack/ethernet_frame.h"

#include <gtest/gtest.h>

#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
using namespace goosestack;
namespace {

constexpr const char* kAddresses = "010CCD010001 02AABBCCDDEE ";

Bytes frameOf(const char* rest) {
  return hexBytes(std::string(kAddresses) + rest);
}
Bytes copyOf(ByteView octets) {
  return {octets.begin(), octets.end()};
}

using Vlan = std::optional<std::uint16_t>;
using Priority = std::optional<std::uint8_t>;

TEST(EthernetFrame, Envelopes) {
  struct Case {
    const char* frame;  // Behind the addresses.
    Vlan vlanId;
    Priority vlanPriority;
    const char* payload;
  };
  const Case cases[] = {
      {"88B8", {}, {}, ""},
      {"88B8 0001 0000", {}, {}, "0001 0000"},
      {"8100 A064 88B8 0001", Vlan(100), Priority(5), "0001"},
      {"8100 B064 88B8 0001", Vlan(100), Priority(5), "0001"},
      {"8100 E000 88B8", Vlan(0), Priority(7), ""},
  };
  for (const auto& [frame, vlanId, vlanPriority, payload] : cases) {
    SCOPED_TRACE(frame);
    const Bytes octets = frameOf(frame);
    const auto parsed = EthernetFrame::parse(octets);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(formatMac(parsed->dstMac), "01:0C:CD:01:00:01");
    EXPECT_EQ(formatMac(parsed->srcMac), "02:AA:BB:CC:DD:EE");
    EXPECT_EQ(parsed->vlanId, vlanId);
    EXPECT_EQ(parsed->vlanPriority, vlanPriority);
    EXPECT_EQ(parsed->etherType, kEtherTypeGoose);
    EXPECT_EQ(copyOf(parsed->payload), hexBytes(payload));
  }
}

TEST(EthernetFrame, OtherFramesAreNothing) {
  for (const char* frame : {"", "88", "0800 0000", "88BA 0001", "8100", "8100 A064 88",
                            "8100 A064 88BA 0001", "8100 A064 8100 A064 88B8 0001"}) {
    EXPECT_FALSE(EthernetFrame::parse(frameOf(frame))) << frame;
  }
  EXPECT_FALSE(EthernetFrame::parse({}));
}

TEST(EthernetFrame, EveryPrefixOfAHeaderIsNothing) {
  // Prefixes of a larger buffer: an octet read beyond the end would be the expected one.
  for (const char* header : {"88B8", "8100 A064 88B8"}) {
    const Bytes frame = frameOf(header);
    for (std::size_t length = 0; length < frame.size(); ++length) {
      EXPECT_FALSE(EthernetFrame::parse(ByteView(frame).first(length))) << header << length;
    }
  }
}

TEST(EthernetFrame, BuiltTags) {
  struct Case {
    std::uint16_t vlanId;
    std::uint8_t vlanPriority;
    const char* expected;  // Behind the addresses.
  };
  const Case cases[] = {
      {100, 4, "8100 8064 88B8 0001"},      {0, 4, "88B8 0001"},
      {100, 9, "8100 2064 88B8 0001"},      {0xFFFF, 0, "8100 0FFF 88B8 0001"},
      {0x0ABC, 255, "8100 EABC 88B8 0001"},
  };
  const MacAddress dstMac{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  const MacAddress srcMac{0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
  const Bytes payload = hexBytes("0001");
  for (const auto& [vlanId, vlanPriority, expected] : cases) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(EthernetFrame::build(dstMac, srcMac, vlanId, vlanPriority, payload),
              frameOf(expected));
  }
  EXPECT_EQ(EthernetFrame::build(dstMac, srcMac, 0, 4, payload, kEtherTypeSv),
            frameOf("88BA 0001"));
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
