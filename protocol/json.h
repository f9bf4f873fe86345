// JSON texts (RFC 8259) from outside, parsed within limits into the library's tree, and look-ups in
// it: a member of another JSON type than asked for counts as missing, whatever the tree holds.
#pragma once

#include <boost/system/result.hpp>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/unreadable.h"

namespace tarnlink {

/// Members in the order of the text, also those that come twice.
using Json = nlohmann::ordered_json;

/// Containers within containers, the outermost included. A text that nests deeper is refused, which
/// bounds every recursion over a tree. The deepest events of the bridge itself, with two levels for
/// each one of a dataset, stay below.
inline constexpr std::size_t kMaxJsonNesting = 80;

/// The tree of a text that is JSON in UTF-8 as a whole. Integers of 64 bits are exact, other
/// numbers correctly rounded; one beyond the largest double is refused. Safe from any thread.
boost::system::result<Json, Unreadable> parseJson(std::string_view text);

/// Nothing where `object` is none or has no such member; of several of one name the last counts.
/// The pointers live as long as the tree is not changed.
const Json* findMember(const Json& object, std::string_view key);
const std::string* findString(const Json& object, std::string_view key);
const Json::array_t* findArray(const Json& object, std::string_view key);
std::optional<bool> findBoolean(const Json& object, std::string_view key);
std::optional<std::int64_t> findInteger(const Json& object, std::string_view key);
std::optional<double> findNumber(const Json& object, std::string_view key);

/// A number with an integral value that fits: 100, 100.0 and 1e2 alike.
std::optional<std::int64_t> asInteger(const Json& value);

}  // namespace tarnlink
