// Announcements and what other computers see of them: real daemons on two computers with one cable
// between them.
#include "app/host/bridge_advertiser.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/host_name.h"
#include "protocol/bridge_service.h"
#include "tests/support/dns_sd_host.h"
#include "tests/support/network_namespace.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::DistantDnsSdHost;
using test::DnsSdHost;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

constexpr int kPort = 8765;
constexpr const char* kNoDaemon =
    "[BridgeAdvertiser] Failed to publish: {code: -26, text: Daemon not running}";

class Log {
 public:
  LogSink sink() {
    return [this](std::string_view line) {
      const std::lock_guard hold(mutex_);
      lines_.emplace_back(line);
    };
  }
  /// The lines so far, once there are `count`, or after some seconds.
  std::vector<std::string> lines(std::size_t count) {
    for (int i = 0; i < 1000; ++i) {
      if (const std::lock_guard hold(mutex_); lines_.size() >= count) return lines_;
      std::this_thread::sleep_for(milliseconds(10));
    }
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

std::string published(const std::string& name) {
  return "[BridgeAdvertiser] Published " + name + " on port 8765";
}

class Announcement : public ::testing::Test {
 protected:
  void SetUp() override {
    test::NetworkNamespace::enter();  // And its users, which the bus and its clients share.
    here_.use();
    here_.startBus();
  }

  /// A second computer; daemons on both.
  void connect() {
    there_ = std::make_unique<DistantDnsSdHost>();
    there_->startBus();
    there_->startDaemon("there");
    here_.startDaemon("here");
  }

  Log log_;
  DnsSdHost here_;
  std::unique_ptr<DistantDnsSdHost> there_;
  BridgeAdvertiser advertiser_{kPort, log_.sink()};
  const std::string name_ = userVisibleHostName(milliseconds(0)).value();
};

TEST_F(Announcement, IsSeenFromAnotherComputerUntilItIsWithdrawn) {
  connect();
  advertiser_.start();
  EXPECT_THAT(log_.lines(1), ElementsAre(published(name_)));
  EXPECT_THAT(there_->browse(),
              HasSubstr(";" + name_ + ";_tarnlink._tcp;local;here.local;10.77.0.1;8765;\n"));
  const auto begin = Clock::now();
  advertiser_.stop();
  EXPECT_LT(Clock::now() - begin, milliseconds(250));
  // RFC 6762, section 10.1: caches keep a record for one second after the goodbye.
  const auto giveUp = Clock::now() + seconds(5);
  while (!there_->browse().empty() && Clock::now() < giveUp) {
  }
  EXPECT_EQ(there_->browse(), "");
  EXPECT_EQ(log_.lines(1).size(), 1U);

  std::string wide;
  for (int i = 0; i < 40; ++i) wide += "ü";
  const auto publication = publishDnsSdService(
      [&] { return wide; }, kBridgeServiceType, kPort,
      [&](const DnsSdOutcome& outcome) { log_.sink()(outcome ? *outcome : ""); });
  EXPECT_EQ(log_.lines(2).back(), wide.substr(0, 62)) << "cut between characters";
}

TEST_F(Announcement, ATakenNameIsReplacedByAVariant) {
  connect();
  const std::vector<std::string> rival = {"avahi-publish", "-s", name_, "_tarnlink._tcp", "9999"};
  for (const DnsSdHost* host :
       {static_cast<const DnsSdHost*>(&here_), static_cast<const DnsSdHost*>(there_.get())}) {
    SCOPED_TRACE(host == &here_ ? "on this computer" : "on the network");
    const auto taker = host->run(rival);
    ASSERT_TRUE(taker->waitForOutput("Established")) << taker->output();
    Log log;
    BridgeAdvertiser advertiser(kPort, log.sink());
    advertiser.start();
    EXPECT_THAT(log.lines(1), ElementsAre(published(name_ + " #2")));
    const auto seen = there_->browse();
    EXPECT_THAT(seen, HasSubstr(name_ + "\\032\\0352;_tarnlink._tcp;local;here.local"));
    EXPECT_THAT(seen, HasSubstr(";9999;"));
    advertiser.stop();
    taker->end();
  }
}

TEST_F(Announcement, ADaemonThatComesBackGetsTheAnnouncementAgain) {
  connect();
  here_.stopDaemon();
  advertiser_.start();
  ASSERT_THAT(log_.lines(1), ElementsAre(kNoDaemon));
  here_.startDaemon("here");
  ASSERT_THAT(log_.lines(2), ElementsAre(kNoDaemon, published(name_)));
  here_.stopDaemon();
  ASSERT_THAT(log_.lines(3), ElementsAre(kNoDaemon, published(name_), kNoDaemon));
  here_.startDaemon("here");
  ASSERT_THAT(log_.lines(4), ElementsAre(kNoDaemon, published(name_), kNoDaemon, published(name_)));
  EXPECT_THAT(there_->browse(), HasSubstr(";8765;"));
}

// The library's calls to a daemon that does not answer end after 25 s.
TEST_F(Announcement, ADaemonThatHangsHoldsNobodyUp) {
  connect();
  ASSERT_EQ(::kill(here_.daemonPid(), SIGSTOP), 0);
  const auto begin = Clock::now();
  advertiser_.start();
  EXPECT_LT(Clock::now() - begin, milliseconds(100));
  std::this_thread::sleep_for(milliseconds(200));  // Until the thread is in the call.
  advertiser_.stop();
  EXPECT_LT(Clock::now() - begin, seconds(1));
  EXPECT_EQ(browseDnsSd(kBridgeServiceType, milliseconds(100)).error().text, "Timeout reached");
  EXPECT_LT(Clock::now() - begin, seconds(2));
  ::kill(here_.daemonPid(), SIGKILL);
  std::this_thread::sleep_for(milliseconds(500));  // What was left behind ends.
  EXPECT_EQ(log_.lines(0).size(), 0U) << "nobody listens any more";
}

TEST_F(Announcement, IsFoundOnTheNetworkByName) {
  connect();
  const auto one = here_.run({"avahi-publish", "-s", "Büro 1", "_tarnlink._tcp", "8765"});
  const auto two = there_->run({"avahi-publish", "-s", "Büro 2", "_tarnlink._tcp", "9000"});
  ASSERT_TRUE(one->waitForOutput("Established") && two->waitForOutput("Established"));
  const auto found = browseDnsSd(kBridgeServiceType, seconds(5));
  ASSERT_TRUE(found && found->size() == 2);
  EXPECT_EQ(found->front().name, "Büro 1");
  const auto& there = found->back();
  EXPECT_EQ(there.name, "Büro 2");
  EXPECT_EQ(there.host, "there.local");
  EXPECT_EQ(there.port, 9000);
  ASSERT_GE(there.addresses.size(), 1U);
  EXPECT_EQ(there.addresses[0], "10.77.0.2");
  for (std::size_t i = 1; i < there.addresses.size(); ++i) {
    EXPECT_THAT(there.addresses[i], ::testing::MatchesRegex("fe80::.*%lan0"));
  }
  const auto begin = Clock::now();
  const auto onlyOne = browseDnsSd(kBridgeServiceType, seconds(5), "Büro 2");
  EXPECT_LT(Clock::now() - begin, milliseconds(500)) << "waited for others";
  ASSERT_TRUE(onlyOne && onlyOne->size() == 1);
  EXPECT_EQ(onlyOne->front().name, "Büro 2");
}

TEST(Announcing, WithoutABusIsOneLogLine) {
  DnsSdHost host;
  host.use();
  Log log;
  BridgeAdvertiser advertiser(kPort, log.sink());
  advertiser.start();
  EXPECT_THAT(log.lines(1), ElementsAre(kNoDaemon));
  EXPECT_EQ(browseDnsSd(kBridgeServiceType, seconds(1)).error().text, "Daemon not running");
  advertiser.stop();
  EXPECT_EQ(log.lines(1).size(), 1U);
}

}  // namespace
}  // namespace tarnlink
