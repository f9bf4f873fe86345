// Reads the members of one JSON object of the protocol, and says what is wrong with which.
#pragma once

#include <boost/system/result.hpp>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/json_value.h"

namespace tarnlink {

enum class Reading {
  lenient,  ///< A member of another type counts as missing, and what is missing takes its default.
  strict,   ///< Whatever would be mended, left out or ignored is refused instead.
};

/// Why a JSON object gives no record.
struct Unreadable {
  enum class Case {
    incomplete,  ///< Something required is missing; a dataset leaves such a value out.
    /// A number does not fit its field, or the reading is strict. Nothing that holds it can be
    /// read: the rest of a dataset would be another dataset on the wire.
    refused,
  };
  Case which = Case::refused;
  std::string where;  ///< The member's path, as values[3].runtimeType; empty: the text as a whole.
  std::string what;   ///< What was expected, and what was there.

  std::string reason() const { return where.empty() ? what : where + ": " + what; }
  Unreadable inside(std::string_view parent) &&;

  bool operator==(const Unreadable&) const = default;
};

/// Lets a result's value() throw; found by Boost through argument-dependent look-up.
[[noreturn]] void throw_exception_from_error(const Unreadable& fault,
                                             const boost::source_location& location);

/// Which members have to be there.
enum class Need { no, whenStrict, always };

struct IntegerRange {
  std::int64_t low;
  std::int64_t high;
};

/// Remembers the first fault. The object lives longer than the reader.
class MemberReader {
 public:
  MemberReader(const JsonObject& object, Reading reading) : object_(object), reading_(reading) {}

  Reading reading() const { return reading_; }
  bool isStrict() const { return reading_ == Reading::strict; }
  bool has(std::string_view key) const { return object_.find(key) != nullptr; }

  /// The member, if it is there and of the type; nothing otherwise, which is a fault where the
  /// member is needed, and for one of another type where the reading is strict.
  const std::string* string(std::string_view key, Need need = Need::no,
                            std::string_view expected = "a string");
  const JsonArray* array(std::string_view key, Need need, std::string_view expected);
  std::optional<bool> boolean(std::string_view key, Need need = Need::no);
  std::optional<double> number(std::string_view key, Need need);
  std::optional<std::int64_t> integer(std::string_view key, Need need = Need::no);

  /// The same for a field of fewer bits. A value that does not fit the field is a fault always; one
  /// outside the range, if the reading is strict.
  template <class Field>
  std::optional<Field> integer(std::string_view key, Need need = Need::no,
                               IntegerRange range = rangeOf<Field>()) {
    if (!isStrict()) range = rangeOf<Field>();
    const auto value = integerWithin(key, need, range);
    return value ? std::optional(static_cast<Field>(*value)) : std::nullopt;
  }

  /// The member belongs to the object, whoever reads it.
  void know(std::string_view key) { known_.push_back(key); }

  /// The member is not what was expected.
  void refuse(std::string_view key, std::string_view expected);
  void fail(Unreadable fault);

  /// Strict reading: refuses members that nobody has asked for, and those that come twice.
  void refuseOthers(std::string_view whose);

  const std::optional<Unreadable>& fault() const { return fault_; }

 private:
  template <class Field>
  static constexpr IntegerRange rangeOf() {
    return {std::numeric_limits<Field>::min(), std::numeric_limits<Field>::max()};
  }
  const JsonValue* take(std::string_view key);
  template <class T>
  const T* takeAs(std::string_view key, Need need, std::string_view expected);
  bool isFault(const JsonValue* found, Need need) const;
  std::optional<std::int64_t> integerWithin(std::string_view key, Need need, IntegerRange range);

  const JsonObject& object_;
  const Reading reading_;
  std::vector<std::string_view> known_;  // Asked for; kept by strict readings alone.
  std::optional<Unreadable> fault_;
};

/// Text as a reason repeats it: in quotes, with escapes, and cut where it is long.
std::string quoted(std::string_view text);

/// What a reader is told of a value that is not the one expected.
std::string described(const JsonValue* value);

}  // namespace tarnlink
