// A parsed JSON document (RFC 8259) as a small tree, and the parser of incoming messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "protocol/json_number.h"

namespace tarnlink {

class JsonValue;
struct JsonMember;
using JsonArray = std::vector<JsonValue>;

/// Members in the order of the text. A key of another JSON type than asked for counts as missing;
/// of several members of one name the last counts.
class JsonObject {
 public:
  JsonObject();
  ~JsonObject();
  JsonObject(const JsonObject&);
  JsonObject(JsonObject&&) noexcept;
  JsonObject& operator=(const JsonObject&);
  JsonObject& operator=(JsonObject&&) noexcept;

  bool empty() const { return members_.empty(); }
  const std::vector<JsonMember>& members() const { return members_; }
  /// The new member's value, null at first; valid until the next append().
  JsonValue& append(std::string_view key);

  /// The pointers live as long as the object is not changed.
  const JsonValue* find(std::string_view key) const;
  const std::string* string(std::string_view key) const;
  const JsonArray* array(std::string_view key) const;
  std::optional<bool> boolean(std::string_view key) const;
  /// Integral values that fit; see JsonNumber.
  std::optional<std::int64_t> integer(std::string_view key) const;
  std::optional<double> number(std::string_view key) const;

 private:
  std::vector<JsonMember> members_;
};

/// A plain value that owns all beneath it.
class JsonValue {
 public:
  using Alternatives =
      std::variant<std::monostate, bool, JsonNumber, std::string, JsonArray, JsonObject>;

  /// null at first
  JsonValue() = default;

  /// Puts a value in place of the one held.
  template <class T>
  T& emplace(T value = T()) {
    return value_.emplace<T>(std::move(value));
  }
  template <class T>
  const T* as() const {
    return std::get_if<T>(&value_);
  }

 private:
  Alternatives value_;
};

struct JsonMember {
  std::string key;
  JsonValue value;
};

/// Containers within containers, the top-level object included. A document that nests deeper is
/// refused, which bounds every recursion over a tree. The deepest events of the bridge itself, with
/// two levels for each one of a dataset, stay below.
inline constexpr std::size_t kMaxJsonNesting = 80;

/// Nothing unless the text is one whole well-formed JSON object in UTF-8. Strings come unescaped
/// and hold valid UTF-8. Safe from any thread.
std::optional<JsonObject> parseJsonObject(std::string_view text);

}  // namespace tarnlink
