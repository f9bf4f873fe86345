#include "ber/ber_reader.h"

namespace goosestack {

std::vector<BerTlv> BerTlv::parseAll(std::span<const std::uint8_t> buffer) {
  std::vector<BerTlv> elements;
  BerSequence sequence(buffer);
  while (const std::optional<BerTlv> element = sequence.next()) elements.push_back(*element);
  return elements;
}

}  // namespace goosestack
