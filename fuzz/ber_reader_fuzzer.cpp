// BER elements at every offset of arbitrary octets.
#include "ber/ber_reader.h"

#include "ber/ber_writer.h"
#include "fuzz/require.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

using Octets = std::span<const std::uint8_t>;

/// The same rule told differently: significant octets first, then their number.
std::optional<BerLength> expectedLength(Octets rest) {
  if (rest.empty() || rest[0] == 0x80) return {};
  if (rest[0] < 0x80) return BerLength{rest[0], 1};
  const std::size_t count = rest[0] & 0x7F;
  if (rest.size() <= count) return {};
  Octets digits = rest.subspan(1, count);
  while (!digits.empty() && digits[0] == 0) digits = digits.subspan(1);
  if (digits.size() > 8 || (digits.size() == 8 && digits[0] >= 0x80)) return {};
  std::size_t length = 0;
  for (const std::uint8_t digit : digits) length = length * 256 + digit;
  return BerLength{length, count + 1};
}

void checkElement(Octets input, std::size_t at, const BerTlv& element, const BerLength& length) {
  require(element.totalBytes == 1 + length.octetsUsed + length.length &&
              element.totalBytes <= input.size() - at,
          "an element ends inside its buffer");
  require(element.tag == input[at] && element.tagBytes.size() == 1 &&
              element.tagBytes.data() == &input[at],
          "the tag is the first octet");
  require(element.value.size() == length.length &&
              element.value.data() == input.data() + at + 1 + length.octetsUsed,
          "the value lies behind the length");
}

void checkRewritten(const BerTlv& element) {
  std::vector<std::uint8_t> written;
  require(appendBerTLV(written, element.tag, element.value) && written.size() <= element.totalBytes,
          "the writer's form is the shortest");
  const auto back = BerTlv::parse(written, 0);
  require(back && back->tag == element.tag && back->totalBytes == written.size() &&
              std::equal(back->value.begin(), back->value.end(), element.value.begin(),
                         element.value.end()),
          "a written element reads back");
}

void checkSequence(Octets input) {
  std::size_t at = 0;
  for (const BerTlv& element : BerTlv::parseAll(input)) {
    require(element.tagBytes.data() == input.data() + at, "elements follow one another");
    checkRewritten(element);
    at += element.totalBytes;
  }
  require(!BerTlv::parse(input, at), "a sequence ends where nothing decodes");
}

void run(Octets input) {
  for (std::size_t at = 0; at <= input.size() + 1; ++at) {
    const auto length = parseBerLength(input, at);
    require(length == expectedLength(input.subspan(std::min(at, input.size()))),
            "lengths follow X.690, 8.1.3");
  }
  for (std::size_t at = 0; at < input.size(); ++at) {
    const auto length = parseBerLength(input, at + 1);
    const bool fits = length && length->length <= input.size() - at - 1 - length->octetsUsed;
    const auto element = BerTlv::parse(input, at);
    require(element.has_value() == fits, "what fits is an element");
    if (element) checkElement(input, at, *element, *length);
  }
  checkSequence(input);
}

}  // namespace
}  // namespace tarnlink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarnlink::fuzz::run({data, size});
  return 0;
}
