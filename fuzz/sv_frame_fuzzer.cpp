// Sampled Values frames: found in arbitrary octets, and built around arbitrary payloads.
#include "goosestack/sv_frame.h"

#include "fuzz/require.h"
#include "goosestack/ethernet_frame.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

void checkParsed(ByteView frame) {
  const auto sv = parseSvFrame(frame);
  const auto envelope = EthernetFrame::parse(frame, kEtherTypeSv);
  require(sv.has_value() == envelope.has_value(), "frames of the type alone are taken");
  if (!sv) return;
  require(sv->dstMac == envelope->dstMac && sv->srcMac == envelope->srcMac &&
              sv->vlanId == envelope->vlanId,
          "addresses and tag are the envelope's");
  require(sv->pdu.data() + sv->pdu.size() == frame.data() + frame.size() &&
              sv->pdu.size() == frame.size() - (sv->vlanId ? 18 : 14),
          "the PDU is the rest of the frame");
}

// Octets 0-1 give the tag, 2-7 both addresses, the rest is the payload.
void checkBuilt(ByteView input) {
  if (input.size() < 8) return;
  const auto vlanId = static_cast<std::uint16_t>(input[0] << 8 | input[1]);
  const ByteView mac = input.subspan(2, 6);
  const ByteView pdu = input.subspan(8);
  const Bytes frame = buildSvFrame(mac, mac, vlanId, input[0], pdu);
  const auto sv = parseSvFrame(frame);
  require(sv.has_value(), "a built frame is one");
  require(sv->vlanId.has_value() == (vlanId != 0) && sv->vlanId.value_or(0) == vlanId % 4096,
          "an identifier makes a tag");
  require(std::equal(mac.begin(), mac.end(), sv->dstMac.begin()) && sv->dstMac == sv->srcMac &&
              std::equal(pdu.begin(), pdu.end(), sv->pdu.begin(), sv->pdu.end()),
          "addresses and payload come back");
}

void run(ByteView input) {
  checkParsed(input);
  checkBuilt(input);
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::run({data, size});
  return 0;
}
