#include "protocol/json.h"

#include <cmath>
#include <utility>
#include <vector>

namespace tarnlink {
namespace {

/// Takes what the parser finds. The library's own builder has no limit of nesting, and compares
/// every new key with all before it.
class TreeBuilder {
 public:
  bool null() { return put(nullptr); }
  bool boolean(bool value) { return put(value); }
  // Zero comes here as -0 alone, which as an integer would lose its sign.
  bool number_integer(std::int64_t value) { return value == 0 ? put(-0.0) : put(value); }
  bool number_unsigned(std::uint64_t value) { return put(value); }
  bool number_float(double value, const std::string&) { return put(value); }
  bool string(std::string& value) { return put(value); }
  bool binary(Json::binary_t&) { return false; }
  bool start_object(std::size_t) { return open(Json::object()); }
  bool start_array(std::size_t) { return open(Json::array()); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }
  bool key(const std::string& key) {
    open_.back()->get_ref<Json::object_t&>().emplace_back(key, Json());
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const Json::exception& fault) {
    constexpr int kBeyondDouble = 406;
    if (fault.id == kBeyondDouble) fault_ = "a number beyond the largest double";
    return false;
  }

  Json takeTree() { return std::move(tree_); }
  const char* fault() const { return fault_; }

 private:
  Json& next() {
    if (open_.empty()) return tree_;
    Json& container = *open_.back();
    if (container.is_array()) return container.get_ref<Json::array_t&>().emplace_back();
    return container.get_ref<Json::object_t&>().back().second;
  }
  bool put(Json&& value) {
    next() = std::move(value);
    return true;
  }
  bool open(Json&& container) {
    if (open_.size() == kMaxJsonNesting) return false;
    Json& place = next();
    place = std::move(container);
    open_.push_back(&place);
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }

  Json tree_;
  std::vector<Json*> open_;  // None grows while one within it is open.
  const char* fault_ = "no JSON object";
};

template <class T>
const T* findAs(const Json& object, std::string_view key) {
  const Json* value = findMember(object, key);
  return value ? value->get_ptr<const T*>() : nullptr;
}

}  // namespace

boost::system::result<Json, Unreadable> parseJson(std::string_view text) {
  TreeBuilder builder;
  // The parser takes NUL for the end.
  if (text.find('\0') != text.npos || !Json::sax_parse(text, &builder)) {
    return Unreadable{Unreadable::Case::refused, {}, builder.fault()};
  }
  return {boost::system::in_place_value, builder.takeTree()};
}

const Json* findMember(const Json& object, std::string_view key) {
  const auto* members = object.get_ptr<const Json::object_t*>();
  if (members == nullptr) return nullptr;
  for (auto member = members->rbegin(); member != members->rend(); ++member) {
    if (member->first == key) return &member->second;
  }
  return nullptr;
}

const std::string* findString(const Json& object, std::string_view key) {
  return findAs<std::string>(object, key);
}

const Json::array_t* findArray(const Json& object, std::string_view key) {
  return findAs<Json::array_t>(object, key);
}

std::optional<bool> findBoolean(const Json& object, std::string_view key) {
  const bool* value = findAs<bool>(object, key);
  return value ? std::optional(*value) : std::nullopt;
}

std::optional<std::int64_t> findInteger(const Json& object, std::string_view key) {
  const Json* value = findMember(object, key);
  return value ? asInteger(*value) : std::nullopt;
}

std::optional<double> findNumber(const Json& object, std::string_view key) {
  const Json* value = findMember(object, key);
  return value && value->is_number() ? std::optional(value->get<double>()) : std::nullopt;
}

std::optional<std::int64_t> asInteger(const Json& value) {
  if (value.is_number_float()) {
    const auto real = value.get<double>();
    const bool isIntegral = std::trunc(real) == real && real >= -0x1p63 && real < 0x1p63;
    return isIntegral ? std::optional(static_cast<std::int64_t>(real)) : std::nullopt;
  }
  const auto* magnitude = value.get_ptr<const Json::number_unsigned_t*>();
  if (magnitude && !std::in_range<std::int64_t>(*magnitude)) return {};
  return value.is_number() ? std::optional(value.get<std::int64_t>()) : std::nullopt;
}

}  // namespace tarnlink
