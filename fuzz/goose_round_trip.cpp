// Encodes random PDUs, decodes them and encodes them again: goose_round_trip [COUNT [SEED]]. The
// decoded PDU must be the one that was encoded, and both encodings the same.
#include <charconv>
#include <cstdio>
#include <string_view>

#include "fuzz/random_goose.h"
#include "fuzz/same_value.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

GoosePdu randomPdu(RandomGoose& random) {
  GoosePdu pdu;
  pdu.header.appId = static_cast<std::uint16_t>(random.number());
  pdu.goCBRef = random.text();
  pdu.timeAllowedToLive = random.number();
  pdu.datSet = random.text();
  pdu.goId = random.text();
  pdu.timestamp = random.time();
  pdu.stNum = random.number();
  pdu.sqNum = random.number();
  pdu.simulation = random.flag();
  pdu.confRev = random.number();
  pdu.ndsCom = random.flag();
  constexpr int kDepth = 4;
  pdu.allData = random.values(kDepth);
  pdu.numDatSetEntries = static_cast<std::uint32_t>(pdu.allData.size());
  return pdu;
}

/// Nothing, or what does not hold. `decoded` is recycled from one to the next.
const char* fault(GoosePdu& pdu, GoosePdu& decoded) {
  const auto encoded = GoosePdu::encode(pdu);
  if (!encoded) return "it is not encoded";
  if (!GoosePdu::parseInto(*encoded, decoded)) return "its encoding does not decode";
  pdu.header.length = static_cast<std::uint16_t>(encoded->size());
  if (!isSame(decoded, pdu)) return "it decodes to another";
  const auto again = GoosePdu::encode(decoded);
  if (!again || *again != *encoded) return "its second encoding differs";
  return nullptr;
}

int run(std::uint64_t count, std::uint32_t seed) {
  RandomGoose random(seed);
  GoosePdu decoded;
  std::uint64_t values = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    GoosePdu pdu = randomPdu(random);
    values += pdu.allData.size();
    if (const char* what = fault(pdu, decoded)) {
      std::fprintf(stderr, "PDU %llu of seed %u: %s\n", static_cast<unsigned long long>(i), seed,
                   what);
      return 1;
    }
  }
  std::printf("%llu PDUs with %llu values of seed %u came back\n",
              static_cast<unsigned long long>(count), static_cast<unsigned long long>(values),
              seed);
  return 0;
}

template <class Number>
bool read(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace
}  // namespace tarnlink::fuzz

int main(int argc, char** argv) {
  std::uint64_t count = 1'000'000;
  std::uint32_t seed = 1;
  if (argc > 3 || (argc > 1 && !tarnlink::fuzz::read(argv[1], count)) ||
      (argc > 2 && !tarnlink::fuzz::read(argv[2], seed))) {
    std::fprintf(stderr, "usage: goose_round_trip [COUNT [SEED]]\n");
    return 2;
  }
  return tarnlink::fuzz::run(count, seed);
}
