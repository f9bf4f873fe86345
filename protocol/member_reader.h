// Reads the members of one JSON object of the protocol, and says what is wrong with which.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/json.h"
#include "protocol/unreadable.h"

namespace tarnlink {

enum class Reading {
  lenient,  ///< A member of another type counts as missing, and what is missing takes its default.
  strict,   ///< Whatever would be mended, left out or ignored is refused instead.
};

/// Which members have to be there.
enum class Need { no, whenStrict, always };

struct IntegerRange {
  std::int64_t low;
  std::int64_t high;
};
template <class Integer>
constexpr IntegerRange rangeOf() {
  return {std::numeric_limits<Integer>::min(), std::numeric_limits<Integer>::max()};
}

/// Remembers the first fault. The object lives longer than the reader.
class MemberReader {
 public:
  MemberReader(const Json& object, Reading reading) : object_(object), reading_(reading) {}

  const Json& object() const { return object_; }
  Reading reading() const { return reading_; }
  bool isStrict() const { return reading_ == Reading::strict; }
  bool has(std::string_view key) const { return findMember(object_, key) != nullptr; }

  /// The member, if it is there and of the type; nothing otherwise, which is a fault where the
  /// member is needed, and for one of another type where the reading is strict.
  const std::string* string(std::string_view key, Need need = Need::no,
                            std::string_view expected = "a string");
  const Json::array_t* array(std::string_view key, Need need);
  std::optional<bool> boolean(std::string_view key, Need need = Need::no);
  std::optional<double> number(std::string_view key, Need need);

  /// The same for a field of fewer bits. A value that does not fit the field is a fault always; one
  /// outside the range, if the reading is strict.
  template <class Field>
  std::optional<Field> integer(std::string_view key, Need need = Need::no,
                               IntegerRange range = rangeOf<Field>()) {
    const auto value = integerWithin(key, need, isStrict() ? range : rangeOf<Field>());
    return value ? std::optional(static_cast<Field>(*value)) : std::nullopt;
  }

  /// The member belongs to the object, whoever reads it.
  void know(std::string_view key) {
    if (isStrict()) known_.push_back(key);
  }

  /// The member is not what was expected.
  void refuse(std::string_view key, std::string_view expected);
  void fail(Unreadable fault);

  /// Strict reading: refuses members that nobody has asked for, and those that come twice.
  void refuseOthers(std::string_view whose);

  const std::optional<Unreadable>& fault() const { return fault_; }

 private:
  bool isFault(std::string_view key, Need need) const;
  template <class Found>
  Found checked(Found found, std::string_view key, Need need, std::string_view expected);
  std::optional<std::int64_t> integerWithin(std::string_view key, Need need, IntegerRange range);

  const Json& object_;
  const Reading reading_;
  std::vector<std::string_view> known_;  // Asked for; kept by strict readings alone.
  std::optional<Unreadable> fault_;
};

/// Text as a reason repeats it: in quotes, with escapes, and cut where it is long.
std::string quotedText(std::string_view text);

/// What a reader is told of a value that is not the one expected.
Unreadable unexpected(std::string where, std::string_view expected, const Json* found);

}  // namespace tarnlink
