// GOOSE frames that take a bridge longer than others of their size. Whoever reaches the process bus
// chooses the frames.
#pragma once

#include <cstddef>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "ber/ber_writer.h"
#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"
#include "tests/support/hex_bytes.h"

namespace tarnlink::bench {

struct SlowFrame {
  std::string what;
  goosestack::Bytes octets;
};

inline goosestack::Bytes element(std::uint8_t tag, const goosestack::Bytes& value) {
  goosestack::Bytes octets;
  if (!goosestack::appendBerTLV(octets, tag, value))
    throw std::runtime_error("an element is too long");
  return octets;
}

/// `next()` gives one piece after the other, as many as fit.
template <class Next>
goosestack::Bytes filled(std::size_t size, Next next) {
  goosestack::Bytes all;
  for (auto piece = next(); all.size() + piece.size() <= size; piece = next()) {
    all.insert(all.end(), piece.begin(), piece.end());
  }
  return all;
}

/// Grown from the leaf: each step wraps what there is, or adds a short element beside it.
inline goosestack::Bytes randomTree(std::mt19937& random) {
  constexpr std::size_t kSize = 70;  // Octets.
  goosestack::Bytes tree;
  while (tree.size() < kSize) {
    const auto bits = random();
    if (bits % 4 != 0) {
      tree = element(bits % 8 < 4 ? 0xA1 : 0xA2, tree);
    } else {
      const auto tags = test::hexBytes("83 85 87 89 91");
      tree.insert(tree.end(), {tags[bits / 4 % tags.size()], 0});
    }
  }
  return tree;
}

inline goosestack::Bytes deepestTree() {
  goosestack::Bytes tree = test::hexBytes("85 00");
  for (int level = 0; level < goosestack::GoosePdu::kMaxDataNesting; ++level)
    tree = element(0xA2, tree);
  return tree;
}

inline goosestack::Bytes frameAround(const goosestack::Bytes& dataset) {
  // The number of entries tempts to reserve too much.
  goosestack::Bytes fields = test::hexBytes(
      "80 01 41 81 02 07 D0 82 01 42 84 08 66 47 0E 62 20 00 00 0A 85 01 05"
      " 86 01 06 88 01 01 8A 05 00 FF FF FF FF");
  const goosestack::Bytes values = element(0xAB, dataset);
  fields.insert(fields.end(), values.begin(), values.end());
  goosestack::Bytes payload = test::hexBytes("0003 0000 0000 0000");
  const goosestack::Bytes pdu = element(0x61, fields);
  payload.insert(payload.end(), pdu.begin(), pdu.end());
  constexpr goosestack::MacAddress kMac{};
  return goosestack::EthernetFrame::build(kMac, kMac, 0, 0, payload);
}

/// With payloads of about so many octets. Random ones, for mispredicted branches, are the same each
/// time.
inline std::vector<SlowFrame> slowFrames(std::size_t payload) {
  const std::size_t size = payload - 64;
  std::mt19937 random(1);
  goosestack::Bytes bits(size - 4);
  for (std::uint8_t& octet : bits) octet = static_cast<std::uint8_t>(random());
  bits.front() = 0;  // Unused ones.
  const auto tags = test::hexBytes("00 83 84 85 86 87 89 8A 91 A1 A2");
  const auto shortest = [&] { return goosestack::Bytes{tags[random() % tags.size()], 0}; };
  return {
      {"booleans", frameAround(filled(size, [] { return test::hexBytes("83 00"); }))},
      {"a random bit string", frameAround(element(0x84, bits))},
      {"a text to escape", frameAround(element(0x8A, goosestack::Bytes(size - 4, 1)))},
      {"random elements", frameAround(filled(size, shortest))},
      {"random trees", frameAround(filled(size, [&] { return randomTree(random); }))},
      {"the deepest trees", frameAround(filled(size, deepestTree))},
  };
}

}  // namespace tarnlink::bench
