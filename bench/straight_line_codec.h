// The limit that the codec is measured against: decoding and writing with bare pointers, into a
// fixed buffer, of frames whose form is known beforehand. Nothing is checked or escaped, and fields
// come in the standard's order, all of them. As in the bridge, the text is written when the frame
// is gone: decoding keeps a copy, and finds the elements in it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "goosestack/bytes.h"

namespace tarnlink::bench {

/// Refers to itself: not to be copied.
struct StraightLineGoose {
  struct Element {
    std::uint8_t tag;
    std::uint8_t length;
    const std::uint8_t* content;
  };
  StraightLineGoose() = default;
  StraightLineGoose(const StraightLineGoose&) = delete;
  StraightLineGoose& operator=(const StraightLineGoose&) = delete;

  std::array<std::uint8_t, 1600> frame;
  std::array<Element, 75> elements;  ///< The eleven fields, then the values.
  std::size_t count;
};

/// False when the frame is not of the expected form.
bool decodeGoose(goosestack::ByteView frame, StraightLineGoose& goose);

/// The "goose_message" event at `out`; returns the position behind it.
char* writeGooseEvent(const StraightLineGoose& goose, double receivedAt, char* out);

}  // namespace tarnlink::bench
