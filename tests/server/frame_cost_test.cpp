// No frame may keep the bridge busy for a millisecond, from its octets to its event's text. Frames
// chosen for what they cost; storage is recycled between them, as a capture does.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <limits>
#include <random>
#include <string>

#include "ber/ber_writer.h"
#include "server/bridge_event_encoder.h"
#include "stack/goose_message_builder.h"
#include "tests/support/hex_bytes.h"

namespace tarnlink::test {
namespace {

Bytes elementOf(std::uint8_t tag, const Bytes& value) {
  Bytes element;
  EXPECT_TRUE(appendBerTLV(element, tag, value));
  return element;
}

Bytes repeated(const Bytes& element, std::size_t size) {
  Bytes elements;
  while (elements.size() + element.size() <= size) {
    elements.insert(elements.end(), element.begin(), element.end());
  }
  return elements;
}

// Costs that come from the processor's guessing wrong need random octets.
Bytes randomOctets(std::size_t count, std::uint8_t mask) {
  std::mt19937 random(1);
  Bytes octets(count);
  for (std::uint8_t& octet : octets) octet = static_cast<std::uint8_t>(random()) & mask;
  return octets;
}

/// Of every kind, as short as they can be.
Bytes randomElements(std::size_t size) {
  const Bytes tags = hexBytes("00 83 84 85 86 87 89 8A 91 A1 A2");
  Bytes elements;
  for (const std::uint8_t octet : randomOctets(size / 2, 0xFF)) {
    elements.insert(elements.end(), {tags[octet % tags.size()], 0});
  }
  return elements;
}

/// Grown from the leaves: each step wraps what there is, or adds a short element beside it.
Bytes randomTrees(std::size_t size) {
  const Bytes tags = hexBytes("83 85 87 89 91");
  Bytes trees;
  Bytes tree;
  for (const std::uint8_t octet : randomOctets(size, 0xFF)) {
    if (octet % 4 != 0) {
      tree = elementOf(octet % 2 == 0 ? 0xA1 : 0xA2, tree);
    } else {
      tree.insert(tree.end(), {tags[octet / 4 % tags.size()], 0});
    }
    if (tree.size() < 70) continue;
    if (trees.size() + tree.size() > size) break;
    trees.insert(trees.end(), tree.begin(), tree.end());
    tree.clear();
  }
  return trees;
}

Bytes deepest(Bytes tree) {
  for (int level = 0; level < GoosePdu::kMaxDataNesting; ++level) tree = elementOf(0xA2, tree);
  return tree;
}

Bytes frameAround(const Bytes& dataset) {
  // A count that tempts to reserve too much.
  Bytes fields = hexBytes(
      "80 01 41 81 02 07 D0 82 01 42 84 08 66 47 0E 62 20 00 00 0A 85 01 05"
      " 86 01 06 88 01 01 8A 05 00 FF FF FF FF");
  EXPECT_TRUE(appendBerTLV(fields, 0xAB, dataset));
  Bytes payload = hexBytes("0003 0000 0000 0000");
  EXPECT_TRUE(appendBerTLV(payload, 0x61, fields));
  constexpr MacAddress kMac{};
  return EthernetFrame::build(kMac, kMac, 0, 0, payload);
}

struct Case {
  const char* name;
  Bytes dataset;
};

std::vector<Case> cases(std::size_t payload) {
  const std::size_t size = payload - 64;
  return {
      {"booleans", repeated(hexBytes("83 00"), size)},
      {"times", repeated(hexBytes("91 00"), size)},
      {"whole times", repeated(hexBytes("91 07 66 47 0E 62 20 00 00"), size)},
      {"empty floats", repeated(hexBytes("87 00"), size)},
      {"denormal floats", repeated(hexBytes("87 05 08 00 7F FF FF"), size)},
      {"largest floats", repeated(hexBytes("87 05 08 FF 7F FF FF"), size)},
      {"short octet strings", repeated(hexBytes("89 01 FF"), size)},
      {"short bit strings", repeated(hexBytes("84 02 00 00"), size)},
      {"shortest texts of a heap block", repeated(elementOf(0x8A, Bytes(16, 'x')), size)},
      {"one bit string", elementOf(0x84, Bytes(size - 4))},
      {"one random bit string", elementOf(0x84, randomOctets(size - 4, 0xF7))},
      {"one octet string", elementOf(0x89, randomOctets(size - 4, 0xFF))},
      {"one text to escape", elementOf(0x8A, Bytes(size - 4, 1))},
      {"one random text", elementOf(0x8A, randomOctets(size - 4, 0x3F))},
      {"random elements", randomElements(size)},
      {"random trees", randomTrees(size)},
      {"the deepest levels", repeated(deepest(hexBytes("85 00")), size)},
      {"nothing but levels", repeated(deepest({}), size)},
  };
}

/// What a capture and its server keep between frames.
struct Road {
  GoosePdu pdu;
  GooseMessage message;

  double milliseconds(const Bytes& frame) {
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const auto parsed = EthernetFrame::parse(frame);
    EXPECT_TRUE(parsed && GoosePdu::parseInto(parsed->payload, pdu));
    buildGooseMessage(*parsed, pdu, {}, message);
    JsonWriter out;
    BridgeEventEncoder::gooseMessage(message, out);
    EXPECT_GT(out.text().size(), parsed->payload.size() / 2);
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
  }
};

/// The fastest of several runs; more of them as long as a busy machine may be to blame. Every run
/// follows a frame of another kind, so that storage must be made, and lets one of it follow, so
/// that storage must be freed.
double cost(const Bytes& frame, const Bytes& other, double limit) {
  constexpr int kRuns = 10;
  constexpr int kMostRuns = 300;
  double own = std::numeric_limits<double>::infinity();
  double follower = own;
  for (int run = 0; run < kMostRuns && (run < kRuns || std::max(own, follower) >= limit); ++run) {
    Road road;
    for (int i = 0; i < 2; ++i) road.milliseconds(other);
    for (int i = 0; i < 2; ++i) own = std::min(own, road.milliseconds(frame));
    for (int i = 0; i < 2; ++i) follower = std::min(follower, road.milliseconds(other));
  }
  return std::max(own, follower);
}

TEST(FrameCost, StaysBelowAMillisecond) {
#if !defined(__OPTIMIZE__) || defined(__clang__)
  GTEST_SKIP() << "a promise of the build that ships";
#endif
  struct Limit {
    std::size_t payload;  // Octets.
    double milliseconds;
  };
  // Ethernet, jumbo frames, and what only loopback and virtual links carry.
  // The last are at 0.9 ms where the machine is not shared with others.
  for (const auto& [payload, limit] : {Limit{1500, 1}, Limit{9000, 1}, Limit{65535, 1.5}}) {
    const Bytes other = frameAround(repeated(hexBytes("83 00"), payload - 64));
    double worst = 0;
    const char* worstName = "";
    for (const auto& [name, dataset] : cases(payload)) {
      const double taken = cost(frameAround(dataset), other, limit);
      EXPECT_LT(taken, limit) << payload << " octets of " << name;
      if (taken <= worst) continue;
      worst = taken;
      worstName = name;
    }
    std::printf("dearest of %zu octets: %s, %.3f ms\n", payload, worstName, worst);
  }
}

}  // namespace
}  // namespace tarnlink::test
