#include "protocol/json_value.h"

#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

namespace tarnlink {

JsonObject::JsonObject() = default;
JsonObject::~JsonObject() = default;
JsonObject::JsonObject(const JsonObject&) = default;
JsonObject::JsonObject(JsonObject&&) noexcept = default;
JsonObject& JsonObject::operator=(const JsonObject&) = default;
JsonObject& JsonObject::operator=(JsonObject&&) noexcept = default;

JsonValue& JsonObject::append(std::string_view key) {
  // Most objects are dataset values with two members, the rest are whole commands.
  constexpr std::size_t kFewMembers = 2;
  constexpr std::size_t kManyMembers = 32;
  if (members_.size() == members_.capacity()) {
    members_.reserve(members_.empty() ? kFewMembers : std::max(kManyMembers, 2 * members_.size()));
  }
  return members_.emplace_back(JsonMember{std::string(key), {}}).value;
}

const JsonValue* JsonObject::find(std::string_view key) const {
  for (auto member = members_.rbegin(); member != members_.rend(); ++member) {
    if (member->key == key) return &member->value;
  }
  return nullptr;
}

namespace {

template <class T>
const T* findAs(const JsonObject& object, std::string_view key) {
  const JsonValue* value = object.find(key);
  return value ? value->as<T>() : nullptr;
}

}  // namespace

const std::string* JsonObject::string(std::string_view key) const {
  return findAs<std::string>(*this, key);
}

const JsonArray* JsonObject::array(std::string_view key) const {
  return findAs<JsonArray>(*this, key);
}

std::optional<bool> JsonObject::boolean(std::string_view key) const {
  const bool* value = findAs<bool>(*this, key);
  return value ? std::optional(*value) : std::nullopt;
}

std::optional<std::int64_t> JsonObject::integer(std::string_view key) const {
  const auto* value = findAs<JsonNumber>(*this, key);
  return value ? value->integer : std::nullopt;
}

std::optional<double> JsonObject::number(std::string_view key) const {
  const auto* value = findAs<JsonNumber>(*this, key);
  return value ? value->real : std::nullopt;
}

namespace {

namespace ondemand = simdjson::ondemand;

/// Walks a document to its end: simdjson's On-Demand front end checks only what is read. Every
/// function returns false at the first fault.
class TreeBuilder {
 public:
  bool read(ondemand::object source, std::size_t depth, JsonObject& out) {
    for (auto next : source) {
      ondemand::field field;
      if (std::move(next).get(field)) return false;
      std::string_view key;
      if (field.unescaped_key().get(key)) return false;
      if (!read(field.value(), depth, out.append(key))) return false;
    }
    return true;
  }

 private:
  bool read(ondemand::array source, std::size_t depth, JsonArray& out) {
    for (auto next : source) {
      ondemand::value element;
      if (next.get(element)) return false;
      if (!read(element, depth, out.emplace_back())) return false;
    }
    return true;
  }

  bool read(ondemand::value source, std::size_t depth, JsonValue& out) {
    ondemand::json_type type;
    if (source.type().get(type)) return false;
    switch (type) {
      case ondemand::json_type::object: {
        ondemand::object object;
        if (depth == kMaxJsonNesting || source.get_object().get(object)) return false;
        return read(object, depth + 1, out.emplace<JsonObject>());
      }
      case ondemand::json_type::array: {
        ondemand::array array;
        if (depth == kMaxJsonNesting || source.get_array().get(array)) return false;
        return read(array, depth + 1, out.emplace<JsonArray>());
      }
      case ondemand::json_type::string: {
        std::string_view text;
        if (source.get_string().get(text)) return false;
        out.emplace<std::string>(std::string(text));
        return true;
      }
      case ondemand::json_type::number:
        return readNumber(token(source), out);
      case ondemand::json_type::boolean:
      case ondemand::json_type::null:
        return readLiteral(token(source), out);
    }
    return false;
  }

  // The raw token, so that a number beyond every type stays a number of the document.
  static std::string_view token(ondemand::value source) {
    std::string_view text = source.raw_json_token();
    const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
  }

  static bool readNumber(std::string_view token, JsonValue& out) {
    const auto number = parseJsonNumber(token);
    if (!number) return false;
    out.emplace<JsonNumber>(*number);
    return true;
  }

  static bool readLiteral(std::string_view token, JsonValue& out) {
    if (token == "null") return true;
    if (token != "true" && token != "false") return false;
    out.emplace<bool>(token == "true");
    return true;
  }
};

/// simdjson's working storage with the padded copy of the text that it reads.
struct ParserStorage {
  ondemand::parser parser;
  std::unique_ptr<char[]> text;
  std::size_t capacity = 0;

  simdjson::padded_string_view load(std::string_view source) {
    if (source.size() > capacity) {
      text = std::make_unique<char[]>(source.size() + simdjson::SIMDJSON_PADDING);
      capacity = source.size();
    }
    if (!source.empty()) std::memcpy(text.get(), source.data(), source.size());
    std::memset(text.get() + source.size(), 0, simdjson::SIMDJSON_PADDING);
    return simdjson::padded_string_view(text.get(), source.size(),
                                        source.size() + simdjson::SIMDJSON_PADDING);
  }
};

// Octets of text up to which a thread keeps its parser's storage (about six times as much).
constexpr std::size_t kKeptStorage = 64 * 1024;

std::optional<JsonObject> parseWith(ParserStorage& storage, std::string_view text) {
  ondemand::document document;
  ondemand::object top;
  JsonObject result;
  if (storage.parser.iterate(storage.load(text)).get(document)) return {};
  if (document.get_object().get(top)) return {};
  if (!TreeBuilder().read(top, 1, result)) return {};
  // Out of bounds is how a document says that all of it has been read.
  if (document.current_location().error() != simdjson::OUT_OF_BOUNDS) return {};
  return result;
}

}  // namespace

std::optional<JsonObject> parseJsonObject(std::string_view text) {
  if (text.empty()) return {};
  if (text.size() > kKeptStorage) {
    ParserStorage storage;
    return parseWith(storage, text);
  }
  thread_local ParserStorage storage;
  return parseWith(storage, text);
}

}  // namespace tarnlink
