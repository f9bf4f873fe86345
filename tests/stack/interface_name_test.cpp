#include "goosestack/interface_name.h"

#include <gtest/gtest.h>

namespace tarnlink {
using namespace goosestack;
namespace {

TEST(InterfaceName, IsALetterAndThenLettersAndDigits) {
  using namespace std::string_view_literals;
  const struct {
    std::string_view name;
    bool valid;
  } cases[] = {
      {"en0"sv, true},
      {"e"sv, true},
      {"abcdefghijklmn5"sv, true},
      {"abcdefghijklmno6"sv, false},
      {""sv, false},
      {"0en"sv, false},
      {"en-0"sv, false},
      {"utun.1"sv, false},
      {"en 0"sv, false},
      {"en0\n"sv, false},
      {"en\0"sv, false},
      {"\xC3\xA9n0"sv, false},
      {"eth0;id"sv, false},
  };
  for (const auto& [name, valid] : cases) EXPECT_EQ(isValidInterfaceName(name), valid) << name;
}

}  // namespace
}  // namespace tarnlink
