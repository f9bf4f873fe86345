#include "goosestack/interface_name.h"

#include <algorithm>

namespace goosestack {
namespace {

// ASCII only, whatever the locale.
bool isLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
bool isLetterOrDigit(char c) {
  return isLetter(c) || (c >= '0' && c <= '9');
}

}  // namespace

bool isValidInterfaceName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxInterfaceNameLength && isLetter(name.front()) &&
         std::all_of(name.begin(), name.end(), isLetterOrDigit);
}

}  // namespace goosestack
