#include "goosestack/interface_name.h"

#include <gtest/gtest.h>

namespace tarnlink {
namespace {

TEST(InterfaceName, IsALetterAndThenLettersAndDigits) {
  using namespace std::string_view_literals;
  for (const auto name : {"en0"sv, "e"sv, "zZ9"sv, "Abcdefghijklmn5"sv}) {
    EXPECT_TRUE(goosestack::isValidInterfaceName(name)) << name;
  }
  for (const auto name : {"abcdefghijklmno6"sv, ""sv, "0en"sv, "en-0"sv, "utun.1"sv, "en0\n"sv,
                          "en\0"sv, "\xC3\xA9n0"sv, "eth0;id"sv}) {
    EXPECT_FALSE(goosestack::isValidInterfaceName(name)) << name;
  }
}

}  // namespace
}  // namespace tarnlink
