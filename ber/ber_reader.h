// Reads tag-length-value elements (ITU-T X.690, definite lengths, single-octet tags) out of a
// received buffer. Nothing is copied: every result borrows from the buffer it was read from and
// holds only as long as that buffer's octets stay in place and unchanged.
//
// A failed decode is the absence of a result; the reason is the caller's to name. Nothing here
// throws on malformed input. All operations are pure and safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <vector>

namespace goosestack {

/// The definite length octets of an element (X.690, 8.1.3).
struct BerLength {
  std::size_t length = 0;      ///< Octets of the value; fits a signed machine integer.
  std::size_t octetsUsed = 0;  ///< The first length octet included.

  bool operator==(const BerLength&) const = default;
};

/// Reads the length whose first octet is at `at`. Nothing when it is truncated, indefinite (0x80)
/// or too large for a signed machine integer. Leading zero octets are accepted.
constexpr std::optional<BerLength> parseBerLength(std::span<const std::uint8_t> buffer,
                                                  std::size_t at) {
  if (at >= buffer.size()) return std::nullopt;
  const std::uint8_t first = buffer[at];
  if ((first & 0x80) == 0) return BerLength{first, 1};

  const std::size_t count = first & 0x7F;
  if (count == 0 || count > buffer.size() - at - 1) return std::nullopt;
  constexpr std::size_t kMax = std::numeric_limits<std::ptrdiff_t>::max();
  std::size_t length = 0;
  for (const std::uint8_t octet : buffer.subspan(at + 1, count)) {
    if (length > (kMax >> 8)) return std::nullopt;
    length = (length << 8) | octet;
  }
  return BerLength{length, count + 1};
}

/// One element. `tagBytes` and `value` borrow from the buffer that was parsed.
struct BerTlv {
  std::uint8_t tag = 0;                    ///< Class, constructed bit and number together.
  std::span<const std::uint8_t> tagBytes;  ///< The tag octet again.
  std::span<const std::uint8_t> value;
  std::size_t totalBytes = 0;  ///< Tag, length and value octets.

  /// The element whose tag is at `at`. Nothing when it is truncated or its length does not decode.
  /// Tag number 31 announces no further tag octets here: the next octet is the length.
  static constexpr std::optional<BerTlv> parse(std::span<const std::uint8_t> buffer,
                                               std::size_t at);

  /// The consecutive elements from the start of the buffer. The first one that does not decode
  /// ends the walk; those before it are returned.
  static std::vector<BerTlv> parseAll(std::span<const std::uint8_t> buffer);
};

constexpr std::optional<BerTlv> BerTlv::parse(std::span<const std::uint8_t> buffer,
                                              std::size_t at) {
  if (at >= buffer.size()) return std::nullopt;
  const std::optional<BerLength> length = parseBerLength(buffer, at + 1);
  if (!length) return std::nullopt;
  const std::size_t begin = at + 1 + length->octetsUsed;
  if (length->length > buffer.size() - begin) return std::nullopt;
  return BerTlv{buffer[at], buffer.subspan(at, 1), buffer.subspan(begin, length->length),
                begin - at + length->length};
}

/// Walks the consecutive elements of a buffer without gathering them. Not to be shared between
/// threads.
class BerSequence {
 public:
  constexpr explicit BerSequence(std::span<const std::uint8_t> buffer) : rest_(buffer) {}

  /// The next element; nothing at the end of the buffer, or for good at the first element that
  /// does not decode.
  constexpr std::optional<BerTlv> next() {
    std::optional<BerTlv> element = BerTlv::parse(rest_, 0);
    rest_ = element ? rest_.subspan(element->totalBytes) : std::span<const std::uint8_t>();
    return element;
  }

 private:
  std::span<const std::uint8_t> rest_;
};

}  // namespace goosestack
