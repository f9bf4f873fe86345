// Sampled Values payloads: arbitrary octets as a whole payload, into a PDU that is used again.
#include "goosestack/sv_pdu.h"

#include "fuzz/require.h"
#include "goosestack/utf8.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

bool isWithin(ByteView part, ByteView whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void checkText(std::string_view text, ByteView input) {
  const ByteView octets(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  require(isWithin(octets, input) && isValidUtf8(octets), "texts are the payload's, and UTF-8");
}

void run(ByteView input) {
  static SvPdu pdu;
  const auto parsed = SvPdu::parseInto(input, pdu);
  if (!parsed) {
    require(parsed.error().which() == GooseError::Case::parseError, "a refusal has one reason");
    return require(pdu.asdus.empty(), "a refusal leaves nothing borrowed");
  }
  require(pdu.asdus.size() <= SvPdu::kMaxAsdus, "ASDUs are bounded");
  require(pdu.asdus.size() * 12 <= input.size(), "an ASDU takes twelve octets at least");
  for (const SvAsdu& asdu : pdu.asdus) {
    checkText(asdu.svId, input);
    if (asdu.datSet) checkText(*asdu.datSet, input);
    require(isWithin(asdu.samples, input), "samples are the payload's");
  }
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::run({data, size});
  return 0;
}
