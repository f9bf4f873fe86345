#include "app/desktop/desktop_options.h"

#include <gmock/gmock.h>

namespace tarnlink {
namespace {

using Texts = std::vector<std::string>;

std::variant<DesktopOptions, ExitCode> parse(std::vector<const char*> words) {
  words.insert(words.begin(), "tarnlink");
  return parseDesktopOptions(static_cast<int>(words.size()), words.data());
}

TEST(DesktopOptions, TheBridgeIsHardenedWhateverElseItIsGiven) {
  const struct {
    std::vector<const char*> words;
    Texts arguments;
  } cases[] = {
      {{}, {"--allow-origin", "*://localhost:*", "--max-clients", "64", "--auth-delay"}},
      {{"-style", "fusion", "--platform", "offscreen", "-reverse", "-style=windows"},
       {"--allow-origin", "*://localhost:*", "--max-clients", "64", "--auth-delay"}},
      {{"--auth-delay", "--bind", "127.0.0.1", "::1", "--port", "9000", "--low-latency"},
       {"--low-latency", "--bind", "127.0.0.1", "::1", "--allow-origin", "*://localhost:*",
        "--max-clients", "64", "--auth-delay"}},
      {{"--allow-origin", "https://a.example", "--max-clients", "5", "--no-advertise"},
       {"--no-advertise", "--allow-origin", "https://a.example", "--max-clients", "5",
        "--auth-delay"}},
  };
  for (const auto& c : cases) {
    const auto options = parse(c.words);
    ASSERT_TRUE(std::holds_alternative<DesktopOptions>(options)) << testing::PrintToString(c.words);
    EXPECT_EQ(std::get<DesktopOptions>(options).bridgeArguments, c.arguments);
  }
  EXPECT_EQ(std::get<DesktopOptions>(parse({"--port", "9000"})).bridge.port, 9000);
  EXPECT_EQ(std::get<DesktopOptions>(parse({"--language", "en"})).language, Language::english);
}

TEST(DesktopOptions, WhatItDoesNotKnowIsRefused) {
  for (const std::vector<const char*>& words : {
           std::vector<const char*>{"--nosuch"},
           {"--preferences", "file"},
           {"--show-pairing-code"},
           {"--owner-token"},
           {"--language", "fr"},
           {"--bind", "nowhere"},
           {"-platform", "offscreen", "word"},
       }) {
    const auto options = parse(words);
    ASSERT_TRUE(std::holds_alternative<ExitCode>(options)) << testing::PrintToString(words);
    EXPECT_EQ(std::get<ExitCode>(options).value, kExitUsage);
  }
}

}  // namespace
}  // namespace tarnlink
