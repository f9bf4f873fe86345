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

}  // namespace

std::string pairingCode(PreferenceStore& preferences) {
  if (auto stored = preferences.read(kPairingCodeKey); stored && isWellFormed(*stored)) {
    return *stored;
  }
  std::array<char, kDigits + 1> text;
  std::snprintf(text.data(), text.size(), "%06u", secureRandom32() % kCodes);
  std::string code(text.data(), kDigits);
  preferences.write(kPairingCodeKey, code);
  return code;
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
