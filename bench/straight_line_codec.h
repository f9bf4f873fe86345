// The limit that the codec is measured against: decoding and writing with bare pointers, into a
// fixed buffer, of frames whose form is known beforehand. No text is checked or escaped, fields
// come in the standard's order or not at all, nothing is kept beyond the frame's own octets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "stack/bytes.h"

namespace tarnlink::bench {

/// Borrows from the frame.
struct StraightLineValue {
  std::uint8_t tag;
  std::uint8_t length;
  const std::uint8_t* octets;
};

struct StraightLineGoose {
  const std::uint8_t* frame;
  std::array<StraightLineValue, 11> fields;  // Of the tags from 0x80 on.
  std::array<StraightLineValue, 64> values;
  std::size_t valueCount;
  std::uint16_t appId;
};

/// False when the frame is not of the expected form.
bool decodeGoose(ByteView frame, StraightLineGoose& goose);

/// The "goose_message" event at `out`; returns the position behind it.
char* writeGooseEvent(const StraightLineGoose& goose, double receivedAt, char* out);

/// The "sv_apdu" event of a tagged frame, straight from its octets.
char* writeSvEvent(ByteView frame, double receivedAt, char* out);

}  // namespace tarnlink::bench
