// Appends tag-length-value elements (ITU-T X.690, definite lengths, single-octet tags) to a growing
// buffer. A refused element leaves the buffer as it was. Distinct buffers may be written from
// distinct threads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace goosestack {

/// Octets of the longest value that is written: what the two-octet long form can express. No frame
/// holds more.
inline constexpr std::size_t kMaxBerValueLength = 65535;

/// Appends the shortest definite length octets (X.690, 8.1.3). False, and nothing appended, above
/// kMaxBerValueLength.
[[nodiscard]] bool appendBerLength(std::vector<std::uint8_t>& buffer, std::size_t length);

/// Appends one element. `value` must not borrow from `buffer`. False, and nothing appended, when
/// the value is longer than kMaxBerValueLength.
[[nodiscard]] bool appendBerTLV(std::vector<std::uint8_t>& buffer, std::uint8_t tag,
                                std::span<const std::uint8_t> value);

/// The content octets of an INTEGER: minimal two's complement, big-endian (X.690, 8.3).
class BerIntegerOctets {
 public:
  explicit BerIntegerOctets(std::int64_t value);

  std::span<const std::uint8_t> octets() const { return std::span(octets_).subspan(begin_); }

 private:
  std::array<std::uint8_t, 8> octets_{};  // The content is at the end.
  std::size_t begin_ = octets_.size();
};

/// Appends a universal INTEGER element (tag 0x02).
void appendBerInteger(std::vector<std::uint8_t>& buffer, std::int64_t value);

/// Appends a universal OBJECT IDENTIFIER element (tag 0x06; X.690, 8.19) from dotted decimal arcs,
/// such as 1.0.9506.2.1. Empty pieces and pieces that are no decimal integers are skipped. False,
/// and nothing appended, with fewer than two arcs, with an arc that is negative or beyond 64 bits,
/// or when 40 * arc1 + arc2 does not fit one octet.
[[nodiscard]] bool appendBerOID(std::vector<std::uint8_t>& buffer, std::string_view dottedArcs);

}  // namespace goosestack
