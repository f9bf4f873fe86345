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
  struct Outcome {
    int exit;
    std::string output;
  };

  void SetUp() override {
    test::NetworkNamespace::enter();
    there_ = std::make_unique<test::DistantDnsSdHost>();
    here_.startBus();
    there_->startBus();
  }

  void startDaemons() {
    here_.startDaemon("here");
    there_->startDaemon("there");
  }

  std::unique_ptr<test::Program> startBridge(const char* option) {
    const auto preferences =
        std::filesystem::path(here_.busSocket()).replace_filename("preferences.json");
    auto bridge = here_.run({TARNLINKD, "--port", "9100", "--preferences", preferences, option});
    EXPECT_TRUE(bridge->waitForOutput("[KorvelTarnlink] Listening"));
    return bridge;
  }

  Outcome ctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TARNLINKCTL);
    const auto client = there_->run(std::move(arguments));
    const int exit = client->wait();
    return {exit, client->output()};
  }

  test::DnsSdHost here_;
  std::unique_ptr<test::DistantDnsSdHost> there_;
};

TEST_F(Discovery, ListsAnAnnouncedBridgeAndReachesItByItsName) {
  startDaemons();
  const auto name = userVisibleHostName().value();
  const auto bridge = startBridge("--low-latency");
  ASSERT_TRUE(bridge->waitForOutput("[BridgeAdvertiser] Published " + name + " on port 9100"));

  const auto json = ctl({"discover", "--json"});
  EXPECT_EQ(json.exit, 0);
  EXPECT_THAT(json.output,
              MatchesRegex("\\{\"name\":\"" + name +
                           "\",\"host\":\"here.local\",\"addresses\":"
                           "\\[\"10.77.0.1\"(,\"fe80::.*%lan1\")?\\],\"port\":9100\\}\n"));
  EXPECT_THAT(ctl({"discover"}).output, HasSubstr(name + "  here.local:9100  10.77.0.1"));
  const auto ping = ctl({"--host", name, "ping"});
  EXPECT_EQ(ping.exit, 0) << ping.output;
  EXPECT_THAT(ping.output, HasSubstr("pong from " + name + ":9100"));
}

TEST_F(Discovery, NamesThatNoHostCanHaveAreBridgesAlone) {
  startDaemons();
  const auto bridge = startBridge("--no-advertise");
  const auto none = ctl({"discover", "--wait", "0.5"});
  EXPECT_EQ(none.exit, 0);
  EXPECT_EQ(none.output, "no bridge found\n");

  const auto announced = here_.run({"avahi-publish", "-s", "Büro 1", "_tarnlink._tcp", "9999"});
  ASSERT_TRUE(announced->waitForOutput("Established"));
  const struct {
    std::vector<std::string> arguments;
    int exit;
    const char* output;
  } cases[] = {
      {{"--host", "Büro 1", "--port", "9100", "ping"}, 0, "pong from Büro 1:9100"},
      {{"--host", "Büro 1", "ping"}, 1, "no bridge at Büro 1:9999: Connection refused"},
      {{"--host", "Büro 2", "ping"}, 1, "no bridge is announced as \"Büro 2\"\n"},
      {{"--host", "10.77.0.1", "--port", "9100", "ping"}, 0, "pong from 10.77.0.1:9100"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.output);
    const auto outcome = ctl(c.arguments);
    EXPECT_EQ(outcome.exit, c.exit);
    EXPECT_THAT(outcome.output, HasSubstr(c.output));
  }
}

TEST_F(Discovery, WithoutADaemonSaysSo) {
  const auto outcome = ctl({"discover"});
  EXPECT_EQ(outcome.exit, 1);
  EXPECT_THAT(outcome.output,
              HasSubstr("cannot look for bridges: Daemon not running (DNS-SD error -26)\n  That "
                        "needs avahi-daemon"));
}

}  // namespace
}  // namespace tarnlink
