#include "protocol/base64.h"

#include <gtest/gtest.h>

#include <string>

namespace tarnlink {
using namespace goosestack;
namespace {

TEST(Base64Test, Rfc4648VectorsBothWays) {
  const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {"\xFB\xFF\xFE", "+//+"}};
  for (const auto& [plain, encoded] : vectors) {
    const Bytes octets(plain.begin(), plain.end());
    std::string text(base64Length(octets.size()), ' ');
    EXPECT_EQ(writeBase64(octets, text.data()), text.data() + text.size());
    EXPECT_EQ(text, encoded);
    EXPECT_EQ(decodeBase64(encoded), octets);
  }
}

TEST(Base64Test, AnythingButTheStandardFormIsRefused) {
  for (const std::string text :
       {"Z", "Zg", "Zg=", "Zg===", "====", "=", "Z===", "Zm9vYg", "Zg==Zg==", "Zm=v", "Zm 9v",
        "Zm9v\n", "Zm9-", "Zm9_", "Zh==", "Zm9=", "Zm\x80v"}) {
    EXPECT_FALSE(decodeBase64(text)) << text;
  }
}

}  // namespace
}  // namespace tarnlink
