#include "server/pairing_code.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "platform/secure_random.h"

namespace tarnlink {
namespace {

constexpr std::size_t kDigits = 6;
constexpr std::uint32_t kCodes = 1'000'000;

bool isWellFormed(std::string_view code) {
  return code.size() == kDigits &&
         std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string newCode() {
  std::array<char, kDigits + 1> text;
  std::snprintf(text.data(), text.size(), "%06u", secureRandom32() % kCodes);
  return {text.data(), kDigits};
}

}  // namespace

std::string pairingCode(PreferenceStore& preferences) {
  return preferences.readOrStore(kPairingCodeKey, isWellFormed, newCode);
}

bool equalsInConstantTime(std::string_view left, std::string_view right) {
  if (left.size() != right.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < left.size(); ++i) {
    difference |= static_cast<unsigned char>(left[i]) ^ static_cast<unsigned char>(right[i]);
  }
  return difference == 0;
}

}  // namespace tarnlink
