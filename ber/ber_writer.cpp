#include "ber/ber_writer.h"

#include <charconv>
#include <optional>
#include <system_error>

namespace goosestack {
namespace {

constexpr std::uint8_t kTagInteger = 0x02;
constexpr std::uint8_t kTagObjectIdentifier = 0x06;

/// Nothing when an arc is one that no identifier can have.
std::optional<std::vector<std::uint64_t>> parseArcs(std::string_view text) {
  std::vector<std::uint64_t> arcs;
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, text.find('.'));
    text.remove_prefix(piece.size() == text.size() ? piece.size() : piece.size() + 1);

    std::int64_t arc = 0;
    const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), arc);
    if (error == std::errc::invalid_argument || end != piece.data() + piece.size()) continue;
    if (error == std::errc::result_out_of_range || arc < 0) return std::nullopt;
    arcs.push_back(static_cast<std::uint64_t>(arc));
  }
  return arcs;
}

void appendBase128(std::vector<std::uint8_t>& buffer, std::uint64_t arc) {
  int shift = 0;
  while ((arc >> shift) > 0x7F) shift += 7;
  for (; shift > 0; shift -= 7) {
    buffer.push_back(static_cast<std::uint8_t>(0x80 | ((arc >> shift) & 0x7F)));
  }
  buffer.push_back(static_cast<std::uint8_t>(arc & 0x7F));
}

}  // namespace

bool appendBerLength(std::vector<std::uint8_t>& buffer, std::size_t length) {
  if (length > kMaxBerValueLength) return false;
  if (length > 0xFF) {
    buffer.push_back(0x82);
    buffer.push_back(static_cast<std::uint8_t>(length >> 8));
  } else if (length > 0x7F) {
    buffer.push_back(0x81);
  }
  buffer.push_back(static_cast<std::uint8_t>(length & 0xFF));
  return true;
}

bool appendBerTLV(std::vector<std::uint8_t>& buffer, std::uint8_t tag,
                  std::span<const std::uint8_t> value) {
  if (value.size() > kMaxBerValueLength) return false;
  buffer.push_back(tag);
  const bool fits = appendBerLength(buffer, value.size());
  buffer.insert(buffer.end(), value.begin(), value.end());
  return fits;
}

BerIntegerOctets::BerIntegerOctets(std::int64_t value) {
  // Stops at the first octet after which only copies of its top bit would follow.
  std::int64_t rest = value;
  bool topBitIsSign = false;
  do {
    const auto octet = static_cast<std::uint8_t>(rest & 0xFF);
    octets_[--begin_] = octet;
    rest >>= 8;
    topBitIsSign = ((octet & 0x80) != 0) == (value < 0);
  } while ((rest != 0 && rest != -1) || !topBitIsSign);
}

void appendBerInteger(std::vector<std::uint8_t>& buffer, std::int64_t value) {
  static_cast<void>(appendBerTLV(buffer, kTagInteger, BerIntegerOctets(value).octets()));
}

bool appendBerOID(std::vector<std::uint8_t>& buffer, std::string_view dottedArcs) {
  const auto arcs = parseArcs(dottedArcs);
  if (!arcs || arcs->size() < 2) return false;
  const std::uint64_t arc1 = arcs->front();
  const std::uint64_t arc2 = (*arcs)[1];
  if (arc1 > 0xFF / 40 || arc2 > 0xFF - 40 * arc1) return false;

  std::vector<std::uint8_t> content{static_cast<std::uint8_t>(40 * arc1 + arc2)};
  for (const std::uint64_t arc : std::span(*arcs).subspan(2)) appendBase128(content, arc);
  return appendBerTLV(buffer, kTagObjectIdentifier, content);
}

}  // namespace goosestack
