#include "protocol/member_reader.h"

#include <algorithm>
#include <utility>

#include "protocol/shortened.h"

namespace tarnlink {
namespace {

// Octets of a text that a reason repeats.
constexpr std::size_t kMaxQuoted = 40;

std::string described(const Json* value) {
  if (value == nullptr) return "nothing";
  if (value->is_array()) return "an array";
  if (value->is_object()) return "an object";
  if (const auto* text = value->get_ptr<const std::string*>()) return quotedText(*text);
  const auto integer = asInteger(*value);
  return integer ? std::to_string(*integer) : value->dump();
}

}  // namespace

std::string quotedText(std::string_view text) {
  // Not every text from outside is UTF-8.
  return Json(shortened(text, kMaxQuoted)).dump(-1, ' ', false, Json::error_handler_t::replace);
}

Unreadable unexpected(std::string where, std::string_view expected, const Json* found) {
  return {Unreadable::Case::refused, std::move(where),
          "expected " + std::string(expected) + ", found " + described(found)};
}

bool MemberReader::isFault(std::string_view key, Need need) const {
  return need == Need::always || (isStrict() && (need == Need::whenStrict || has(key)));
}

template <class Found>
Found MemberReader::checked(Found found, std::string_view key, Need need,
                            std::string_view expected) {
  know(key);
  if (!found && isFault(key, need)) refuse(key, expected);
  return found;
}

const std::string* MemberReader::string(std::string_view key, Need need,
                                        std::string_view expected) {
  return checked(findString(object_, key), key, need, expected);
}

const Json::array_t* MemberReader::array(std::string_view key, Need need) {
  return checked(findArray(object_, key), key, need, "an array");
}

std::optional<bool> MemberReader::boolean(std::string_view key, Need need) {
  return checked(findBoolean(object_, key), key, need, "true or false");
}

std::optional<double> MemberReader::number(std::string_view key, Need need) {
  return checked(findNumber(object_, key), key, need, "a number");
}

std::optional<std::int64_t> MemberReader::integerWithin(std::string_view key, Need need,
                                                        IntegerRange range) {
  know(key);
  const auto value = findInteger(object_, key);
  if (value ? *value < range.low || *value > range.high : isFault(key, need)) {
    refuse(key,
           "an integer from " + std::to_string(range.low) + " to " + std::to_string(range.high));
  }
  return value;
}

void MemberReader::refuse(std::string_view key, std::string_view expected) {
  fail(unexpected(std::string(key), expected, findMember(object_, key)));
}

void MemberReader::fail(Unreadable fault) {
  if (!fault_) fault_ = std::move(fault);
}

void MemberReader::refuseOthers(std::string_view whose) {
  if (!isStrict()) return;
  for (const auto& [key, value] : object_.get_ref<const Json::object_t&>()) {
    if (std::find(known_.begin(), known_.end(), key) == known_.end()) {
      fail({Unreadable::Case::refused, shortened(key, kMaxQuoted),
            "no member of " + std::string(whose)});
    } else if (findMember(object_, key) != &value) {
      fail({Unreadable::Case::refused, key, "expected once, found more than once"});
    }
    if (fault_) return;
  }
}

}  // namespace tarnlink
