// The layer-2 envelope of arbitrary frames.
#include "goosestack/ethernet_frame.h"

#include <algorithm>

#include "fuzz/require.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

int wordAt(ByteView octets, std::size_t at) {
  return octets.size() < at + 2 ? -1 : octets[at] * 256 + octets[at + 1];
}

void checkFields(ByteView frame, const ParsedEthernetFrame& parsed, bool isTagged) {
  require(std::equal(parsed.dstMac.begin(), parsed.dstMac.end(), frame.begin()) &&
              std::equal(parsed.srcMac.begin(), parsed.srcMac.end(), frame.begin() + 6),
          "addresses stand first");
  require(parsed.vlanId.has_value() == isTagged && parsed.vlanPriority.has_value() == isTagged,
          "a tag gives both of its parts");
  if (isTagged) {
    require(wordAt(frame, 14) % 4096 == *parsed.vlanId &&
                wordAt(frame, 14) / 8192 == *parsed.vlanPriority,
            "identifier and priority are the tag's");
  }
  const std::size_t header = isTagged ? 18 : 14;
  require(parsed.payload.data() == frame.data() + header &&
              parsed.payload.size() == frame.size() - header,
          "the payload is the rest of the frame");
}

void checkRebuilt(ByteView frame, const ParsedEthernetFrame& parsed) {
  const Bytes built =
      EthernetFrame::build(parsed.dstMac, parsed.srcMac, parsed.vlanId.value_or(0),
                           parsed.vlanPriority.value_or(0), parsed.payload, parsed.etherType);
  const bool losesTag = parsed.vlanId && *parsed.vlanId == 0;
  require(built.size() == frame.size() - (losesTag ? 4 : 0), "only priority tags are lost");
  if (losesTag) return;
  Bytes expected(frame.begin(), frame.end());
  if (parsed.vlanId) expected[14] &= 0xEF;  // CFI/DEI is written as 0.
  require(built == expected, "a rebuilt frame is the frame");
}

void run(ByteView frame) {
  const bool isTagged = wordAt(frame, 12) == kEtherTypeVlan;
  const int etherType = wordAt(frame, isTagged ? 16 : 12);
  for (const std::uint16_t wanted : {kEtherTypeGoose, kEtherTypeSv}) {
    require(EthernetFrame::parse(frame, wanted).has_value() == (etherType == wanted),
            "frames of the wanted type alone are taken");
  }
  if (etherType < 0) return;
  const auto parsed = EthernetFrame::parse(frame, static_cast<std::uint16_t>(etherType));
  require(parsed && parsed->etherType == etherType, "every whole header is read");
  checkFields(frame, *parsed, isTagged);
  checkRebuilt(frame, *parsed);
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::run({data, size});
  return 0;
}
