// The limit that the codec is measured against: decoding and writing with bare pointers, into a
// fixed buffer, of frames whose form is known beforehand. No text is checked or escaped, and fields
// come in the standard's order or not at all. As in the bridge, the text is written when the frame
// is gone: what it needs is decoded and copied, into fixed arrays.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "goosestack/bytes.h"

namespace tarnlink::bench {

/// One field or value: a text or bits in octets, a number, or the two parts of a time.
struct StraightLineValue {
  std::uint8_t tag;
  std::uint8_t length;         ///< Octets on the wire.
  std::uint32_t number;        ///< A float's bits; of a time the seconds.
  std::uint32_t fraction;      ///< Of a second, in 2^-24 s.
  const std::uint8_t* octets;  ///< In the message's store.
};

/// Refers to itself: not to be copied.
struct StraightLineGoose {
  StraightLineGoose() = default;
  StraightLineGoose(const StraightLineGoose&) = delete;
  StraightLineGoose& operator=(const StraightLineGoose&) = delete;

  std::uint16_t appId;
  std::array<std::uint8_t, 12> macs;         ///< Destination, source.
  std::array<StraightLineValue, 11> fields;  ///< Of the tags from 0x80 on.
  std::array<StraightLineValue, 64> values;
  std::size_t valueCount;
  std::array<std::uint8_t, 1600> store;
};

/// False when the frame is not of the expected form.
bool decodeGoose(goosestack::ByteView frame, StraightLineGoose& goose);

/// The "goose_message" event at `out`; returns the position behind it.
char* writeGooseEvent(const StraightLineGoose& goose, double receivedAt, char* out);

}  // namespace tarnlink::bench
