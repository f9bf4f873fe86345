#include "supervision/member_prints.h"

#include <algorithm>
#include <bit>

#include "supervision/hash.h"

namespace tarnlink {
namespace {

using Value = goosestack::GooseDataValue;
using Values = MemberPrints::Values;

constexpr int kTypeShift = 48;
constexpr std::uint64_t kValueMask = (std::uint64_t{1} << kTypeShift) - 1;

std::uint64_t typeOf(Value::Kind kind) {
  // One up, so that no print is the 0 of an empty place.
  return (static_cast<std::uint64_t>(kind) + 1) << 56;
}

std::uint64_t printOf(const Value& value, const goosestack::BitString& bits) {
  const goosestack::ByteView octets = bits.octets();
  if (octets.size() > 4) {
    return typeOf(value.kind()) | (hashOctets(octets, bits.size()) & kValueMask);
  }
  std::uint64_t word = bits.size();
  for (const std::uint8_t octet : octets) word = word << 8 | octet;
  return typeOf(value.kind()) | word;
}

std::uint64_t printOf(const Value& value, std::span<const Value> members) {
  std::uint64_t types = members.size();
  std::uint64_t content = members.size();
  for (const Value& member : members) {
    const std::uint64_t print = memberPrint(member);
    types = hashMix(types, print >> kTypeShift);
    content = hashMix(content, print);
  }
  return typeOf(value.kind()) | (types & 0xFF) << kTypeShift | (content & kValueMask);
}

std::uint64_t printOf(const Value& value, double number) {
  const auto bits = std::bit_cast<std::uint64_t>(number);
  return typeOf(value.kind()) | (hashMix(bits, 0) & kValueMask);
}

/// Of the members from `at` to the end together.
std::uint64_t restPrint(Values values, std::size_t at) {
  std::uint64_t hash = 0;
  for (const Value& value : values.subspan(at)) hash = hashMix(hash, memberPrint(value));
  return hash & kValueMask;
}

std::uint64_t printAt(Values values, std::size_t at) {
  return at + 1 == MemberPrints::kMax ? restPrint(values, at) : memberPrint(values[at]);
}

}  // namespace

std::uint64_t memberPrint(const Value& value) {
  const Value::Payload& payload = value.payload;
  switch (value.kind()) {
    case Value::Kind::boolean:
      return typeOf(value.kind()) | (*std::get_if<bool>(&payload) ? 1U : 0U);
    case Value::Kind::integer:
      return typeOf(value.kind()) |
             static_cast<std::uint32_t>(*std::get_if<std::int32_t>(&payload));
    case Value::Kind::unsignedInteger:
      return typeOf(value.kind()) | *std::get_if<std::uint32_t>(&payload);
    case Value::Kind::floatingPoint:
      return typeOf(value.kind()) | std::bit_cast<std::uint32_t>(*std::get_if<float>(&payload));
    case Value::Kind::bitString:
      return printOf(value, *std::get_if<goosestack::BitString>(&payload));
    case Value::Kind::realDouble:
      return printOf(value, *std::get_if<double>(&payload));
    case Value::Kind::utcTime:
      return printOf(value, goosestack::unixSeconds(*std::get_if<goosestack::TimePoint>(&payload)));
    case Value::Kind::octetString: {
      const auto& octets = *std::get_if<goosestack::Bytes>(&payload);
      return typeOf(value.kind()) | (hashOctets(goosestack::ByteView(octets), 0) & kValueMask);
    }
    case Value::Kind::visibleString: {
      const auto& text = *std::get_if<std::string>(&payload);
      return typeOf(value.kind()) | (hashOctets(std::string_view(text), 0) & kValueMask);
    }
    case Value::Kind::structure:
      return printOf(value, std::get_if<Value::Structure>(&payload)->members);
    case Value::Kind::array:
      return printOf(value, std::get_if<Value::Array>(&payload)->members);
    case Value::Kind::unknown:
      break;
  }
  const auto* unknown = std::get_if<Value::Unknown>(&payload);
  if (unknown == nullptr) return 0;
  return typeOf(Value::Kind::unknown) | std::uint64_t{unknown->tag} << kTypeShift |
         (hashOctets(goosestack::ByteView(unknown->data), 0) & kValueMask);
}

bool MemberPrints::isSame(Values values) const {
  if (values.size() != count_) return false;
  for (std::size_t i = 0; i < prints_.size(); ++i) {
    if (printAt(values, i) != prints_[i]) return false;
  }
  return true;
}

MemberPrints::Difference MemberPrints::replace(Values values) {
  Difference difference;
  difference.ofTypes = values.size() != count_;
  const std::size_t kept = std::min(values.size(), kMax);
  const std::size_t before = prints_.size();
  if (kept > prints_.capacity()) prints_.reserve(kept);
  prints_.resize(kept);
  for (std::size_t i = 0; i < kept; ++i) {
    const std::uint64_t print = printAt(values, i);
    if (i < before && print == prints_[i]) continue;
    if (((print ^ prints_[i]) >> kTypeShift) != 0) difference.ofTypes = true;
    difference.members.push_back(static_cast<std::uint32_t>(i));
    prints_[i] = print;
  }
  count_ = values.size();
  return difference;
}

}  // namespace tarnlink
