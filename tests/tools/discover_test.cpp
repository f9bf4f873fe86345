// The programs as they ship: a bridge on one computer, its client on another.
#include <gmock/gmock.h>

#include <string>

#include "platform/host_name.h"
#include "tests/support/dns_sd_host.h"
#include "tests/support/network_namespace.h"

namespace tarnlink {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

class Discovery : public ::testing::Test {
 protected:
  void SetUp() override {
    test::NetworkNamespace::enter();
    there_ = std::make_unique<test::DistantDnsSdHost>();
    here_.startBus();
    there_->startBus();
  }
  std::unique_ptr<test::Program> startBridge(const char* option) {
    here_.startDaemon("here");
    there_->startDaemon("there");
    const auto preferences =
        std::filesystem::path(here_.busSocket()).replace_filename("preferences.json");
    auto bridge = here_.run({TARNLINKD, "--port", "9100", "--preferences", preferences, option});
    EXPECT_TRUE(bridge->waitForOutput("[KorvelTarnlink] Listening"));
    return bridge;
  }
  /// What it wrote, and with which exit code it ended.
  std::string ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TARNLINKCTL);
    const auto client = there_->run(std::move(arguments));
    const int exitCode = client->wait();
    return client->output() + "exit code " + std::to_string(exitCode);
  }

  test::DnsSdHost here_;
  std::unique_ptr<test::DistantDnsSdHost> there_;
};

TEST_F(Discovery, ListsAnAnnouncedBridgeAndReachesItByItsName) {
  const auto bridge = startBridge("--low-latency");
  const auto name = userVisibleHostName().value();
  ASSERT_TRUE(bridge->waitForOutput("[BridgeAdvertiser] Published " + name + " on port 9100"));
  EXPECT_THAT(
      ctl({"discover", "--json"}),
      MatchesRegex("\\{\"name\":\"" + name +
                   "\",\"host\":\"here.local\",\"addresses\":"
                   "\\[\"10.77.0.1\"(,\"fe80::.*%lan1\")?\\],\"port\":9100\\}\nexit code 0"));
  EXPECT_THAT(ctl({"discover"}), HasSubstr(name + "  here.local:9100  10.77.0.1"));
  EXPECT_THAT(ctl({"--host", name, "ping"}), HasSubstr("pong from " + name + ":9100"));
}

TEST_F(Discovery, NamesThatNoHostCanHaveAreBridgesAlone) {
  const auto bridge = startBridge("--no-advertise");
  EXPECT_EQ(ctl({"discover", "--wait", "0.5"}), "no bridge found\nexit code 0");
  const auto announced = here_.run({"avahi-publish", "-s", "Büro 1", "_tarnlink._tcp", "9999"});
  ASSERT_TRUE(announced->waitForOutput("Established"));
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--host", "Büro 1", "--port", "9100", "ping"}, "pong from Büro 1:9100"},
      {{"--host", "Büro 1", "ping"}, "no bridge at Büro 1:9999: Connection refused"},
      {{"--host", "Büro 2", "ping"}, "no bridge is announced as \"Büro 2\"\n"},
      {{"--host", "10.77.0.1", "--port", "9100", "ping"}, "pong from 10.77.0.1:9100"},
  };
  for (const auto& [arguments, says] : cases) EXPECT_THAT(ctl(arguments), HasSubstr(says));
}

TEST_F(Discovery, WithoutADaemonSaysSo) {
  EXPECT_THAT(
      ctl({"discover"}),
      MatchesRegex("tarnlinkctl: cannot look for bridges: Daemon not running \\(DNS-SD error "
                   "-26\\)\n  That needs avahi-daemon.*exit code 1"));
}

}  // namespace
}  // namespace tarnlink
