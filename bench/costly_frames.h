// GOOSE frames that cost a bridge more than others of their size. Whoever reaches the process bus
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

struct CostlyFrame {
  std::string what;
  goosestack::Bytes octets;
};

inline goosestack::Bytes element(std::uint8_t tag, const goosestack::Bytes& value) {
  goosestack::Bytes octets;
  if (!goosestack::appendBerTLV(octets, tag, value))
    throw std::runtime_error("an element is too long");
  return octets;
}

inline goosestack::Bytes repeated(const goosestack::Bytes& piece, std::size_t size) {
  goosestack::Bytes all;
  while (all.size() + piece.size() <= size) all.insert(all.end(), piece.begin(), piece.end());
  return all;
}

/// Costs of mispredicted branches need random octets; the same ones each time.
inline goosestack::Bytes randomOctets(std::size_t count, std::uint8_t mask = 0xFF) {
  std::mt19937 random(1);
  goosestack::Bytes octets(count);
  for (std::uint8_t& octet : octets) octet = static_cast<std::uint8_t>(random()) & mask;
  return octets;
}

/// Of every kind, as short as they can be.
inline goosestack::Bytes randomElements(std::size_t size) {
  const goosestack::Bytes tags = test::hexBytes("00 83 84 85 86 87 89 8A 91 A1 A2");
  goosestack::Bytes elements;
  for (const auto octet : randomOctets(size / 2)) {
    elements.insert(elements.end(), {tags[octet % tags.size()], 0});
  }
  return elements;
}

/// Grown from the leaves: each step wraps what there is, or adds a short element beside it.
inline goosestack::Bytes randomTrees(std::size_t size) {
  constexpr std::size_t kTreeSize = 70;  // Octets.
  const goosestack::Bytes tags = test::hexBytes("83 85 87 89 91");
  goosestack::Bytes trees;
  goosestack::Bytes tree;
  for (const auto octet : randomOctets(size)) {
    if (octet % 4 != 0) {
      tree = element(octet % 2 == 0 ? 0xA1 : 0xA2, tree);
    } else {
      tree.insert(tree.end(), {tags[octet / 4 % tags.size()], 0});
    }
    if (tree.size() < kTreeSize) continue;
    if (trees.size() + tree.size() > size) break;
    trees.insert(trees.end(), tree.begin(), tree.end());
    tree.clear();
  }
  return trees;
}

inline goosestack::Bytes deepest() {
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

/// With payloads of about so many octets.
inline std::vector<CostlyFrame> costlyFrames(std::size_t payload) {
  const std::size_t size = payload - 64;
  const auto many = [size](const char* octets) {
    return frameAround(repeated(test::hexBytes(octets), size));
  };
  return {
      {"booleans", many("83 00")},
      {"whole times", many("91 07 66 47 0E 62 20 00 00")},
      {"denormal floats", many("87 05 08 00 7F FF FF")},
      {"largest floats", many("87 05 08 FF 7F FF FF")},
      {"short octet strings", many("89 01 FF")},
      {"short bit strings", many("84 02 00 00")},
      {"texts on the heap", frameAround(repeated(element(0x8A, goosestack::Bytes(16, 'x')), size))},
      {"a random bit string", frameAround(element(0x84, randomOctets(size - 4, 0xF7)))},
      {"a text to escape", frameAround(element(0x8A, goosestack::Bytes(size - 4, 1)))},
      {"random elements", frameAround(randomElements(size))},
      {"random trees", frameAround(randomTrees(size))},
      {"the deepest trees", frameAround(repeated(deepest(), size))},
  };
}

}  // namespace tarnlink::bench
