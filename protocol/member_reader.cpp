#include "protocol/member_reader.h"

#include <algorithm>
#include <boost/throw_exception.hpp>
#include <stdexcept>

#include "protocol/json_writer.h"
#include "protocol/shortened.h"

namespace tarnlink {
namespace {

// Octets of a text that a reason repeats.
constexpr std::size_t kMaxQuoted = 40;

std::string described(const JsonNumber& number) {
  if (number.integer) return std::to_string(*number.integer);
  if (!number.real) return "a number beyond the largest double";
  JsonWriter out;
  out.number(*number.real);
  return std::string(out.text());
}

}  // namespace

std::string quoted(std::string_view text) {
  JsonWriter out;
  out.string(shortened(text, kMaxQuoted));
  return std::string(out.text());
}

std::string described(const JsonValue* value) {
  if (value == nullptr) return "nothing";
  if (const auto* text = value->as<std::string>()) return quoted(*text);
  if (const auto* number = value->as<JsonNumber>()) return described(*number);
  if (const auto* flag = value->as<bool>()) return *flag ? "true" : "false";
  if (value->as<JsonArray>() != nullptr) return "an array";
  if (value->as<JsonObject>() != nullptr) return "an object";
  return "null";
}

Unreadable Unreadable::inside(std::string_view parent) && {
  where = where.empty() ? std::string(parent) : std::string(parent) + "." + where;
  return std::move(*this);
}

void throw_exception_from_error(const Unreadable& fault, const boost::source_location& location) {
  boost::throw_exception(std::runtime_error(fault.reason()), location);
}

const JsonValue* MemberReader::take(std::string_view key) {
  if (isStrict()) known_.push_back(key);
  return object_.find(key);
}

bool MemberReader::isFault(const JsonValue* found, Need need) const {
  if (need == Need::always) return true;
  return isStrict() && (found != nullptr || need == Need::whenStrict);
}

template <class T>
const T* MemberReader::takeAs(std::string_view key, Need need, std::string_view expected) {
  const JsonValue* found = take(key);
  const T* value = found ? found->as<T>() : nullptr;
  if (value == nullptr && isFault(found, need)) refuse(key, expected);
  return value;
}

const std::string* MemberReader::string(std::string_view key, Need need,
                                        std::string_view expected) {
  return takeAs<std::string>(key, need, expected);
}

const JsonArray* MemberReader::array(std::string_view key, Need need, std::string_view expected) {
  return takeAs<JsonArray>(key, need, expected);
}

std::optional<bool> MemberReader::boolean(std::string_view key, Need need) {
  const bool* value = takeAs<bool>(key, need, "true or false");
  return value ? std::optional(*value) : std::nullopt;
}

std::optional<double> MemberReader::number(std::string_view key, Need need) {
  constexpr std::string_view kExpected = "a number";
  const auto* value = takeAs<JsonNumber>(key, need, kExpected);
  if (value == nullptr) return std::nullopt;
  if (!value->real && isFault(object_.find(key), need)) refuse(key, kExpected);
  return value->real;
}

std::optional<std::int64_t> MemberReader::integer(std::string_view key, Need need) {
  return integerWithin(key, need, rangeOf<std::int64_t>());
}

std::optional<std::int64_t> MemberReader::integerWithin(std::string_view key, Need need,
                                                        IntegerRange range) {
  const auto refuseIt = [&] {
    refuse(key,
           "an integer from " + std::to_string(range.low) + " to " + std::to_string(range.high));
  };
  const JsonValue* found = take(key);
  const auto* number = found ? found->as<JsonNumber>() : nullptr;
  if (number == nullptr || !number->integer) {
    if (isFault(found, need)) refuseIt();
    return std::nullopt;
  }
  if (*number->integer < range.low || *number->integer > range.high) refuseIt();
  return number->integer;
}

void MemberReader::refuse(std::string_view key, std::string_view expected) {
  fail({Unreadable::Case::refused, std::string(key),
        "expected " + std::string(expected) + ", found " + described(object_.find(key))});
}

void MemberReader::fail(Unreadable fault) {
  if (!fault_) fault_ = std::move(fault);
}

void MemberReader::refuseOthers(std::string_view whose) {
  if (!isStrict()) return;
  for (const JsonMember& member : object_.members()) {
    if (std::find(known_.begin(), known_.end(), member.key) == known_.end()) {
      fail({Unreadable::Case::refused, shortened(member.key, kMaxQuoted),
            "no member of " + std::string(whose)});
    } else if (object_.find(member.key) != &member.value) {
      fail({Unreadable::Case::refused, member.key, "expected once, found more than once"});
    }
    if (fault_) return;
  }
}

}  // namespace tarnlink
