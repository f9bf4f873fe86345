#include "app/host/vlan_interface_helper.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/scripted_process_runner.h"

namespace tarnlink {
namespace {

using test::outcome;
using test::ScriptedCommand;
using test::ScriptedProcessRunner;
using Script = std::vector<ScriptedCommand>;
using Argv = std::vector<std::string>;

const std::string kNotCreated = "vlan-Interface vlan100 konnte nicht erstellt werden";
const VlanError kCancelled{-128, "Benutzer hat abgebrochen"};
const auto kOk = outcome(0);
const auto kMissing = outcome(1, "", "Device \"vlan100\" does not exist.\n");

struct Case {
  const char* situation;
  Script script;
  VlanError error = {};  // By default the link is there.
};

void check(const Case& c, const AdminPrompt& prompt) {
  SCOPED_TRACE(c.situation);
  VlanInterfaceHelper helper(std::make_unique<ScriptedProcessRunner>(c.script), kLinuxVlanDialect,
                             prompt);
  const auto result = helper.ensureVlanInterface("eth0", 100);
  EXPECT_EQ(result ? VlanError() : result.error(), c.error);
  EXPECT_EQ(result ? *result : "vlan100", "vlan100");
}

const std::string kWholeMap =
    R"([{"from":1,"to":1},{"from":2,"to":2},{"from":3,"to":3},{"from":4,"to":4},)"
    R"({"from":5,"to":5},{"from":6,"to":6},{"from":7,"to":7}])";
const std::string kUp = R"(["BROADCAST","MULTICAST","UP","LOWER_UP"])";
const std::string kOurs = R"("ifalias":"tarnlink","addr_info":[])";

// What the tool says of a VLAN link, and of all links.
std::string linkText(const std::string& parent, int vid, const std::string& rest = kOurs,
                     const std::string& others = "[]", const std::string& flags = kUp,
                     const std::string& map = kWholeMap) {
  return R"([{"link":")" + parent + R"(","ifname":"vlan100","flags":)" + flags +
         R"(,"linkinfo":{"info_kind":"vlan","info_data":{"protocol":"802.1Q","id":)" +
         std::to_string(vid) + R"(,"flags":["REORDER_HDR"],"egress_qos":)" + map + "}}," + rest +
         "}]\n" + others + "\n";
}

const std::string kCreateLine =
    "/sbin/ip link add link eth0 name vlan100 type vlan id 100 egress-qos-map 0:0 1:1 2:2 3:3 4:4 "
    "5:5 6:6 7:7 && { /sbin/ip link set dev vlan100 alias tarnlink; "
    "/sbin/ip link set dev vlan100 addrgenmode none; /sbin/ip link set dev vlan100 up; }";
const Argv kProbe{"/sbin/ip", "-json", "link", "show", "dev", "vlan100"};
const Argv kProbeParent{"/sbin/ip", "-json", "link", "show", "dev", "eth0"};
const Argv kReadBack{"/bin/sh", "-c",
                     "/sbin/ip -json -details address show dev vlan100; /sbin/ip -json link show"};
const Argv kCreateHeld{"/bin/sh", "-c", kCreateLine};

Argv asked(const std::string& line) {
  return {"/usr/bin/pkexec", "--disable-internal-agent", "/bin/sh", "-c", line};
}
const Argv kCreate = asked(kCreateLine);
const Argv kDestroy = asked("/sbin/ip link delete dev vlan100");
const Argv kComplete = asked("/sbin/ip link set dev vlan100 up type vlan egress-qos-map 1:1 7:7");

Script existing(const std::string& text, Script rest = {}) {
  Script script{{kProbe, kOk}, {kReadBack, outcome(0, text)}};
  script.insert(script.end(), rest.begin(), rest.end());
  return script;
}
Script missing(Script rest) {
  rest.insert(rest.begin(), {{kProbe, kMissing}, {kProbeParent, kOk}});
  return rest;
}
Script replaced(Script rest) {
  rest.insert(rest.begin(), {{kProbeParent, kOk}, {kDestroy, kOk}, {kCreate, kOk}});
  return rest;
}

TEST(VlanInterfaceHelper, LinuxAsksOnceForEachCommandLine) {
  const std::string partlyMapped = linkText(
      "eth0", 100, R"("addr_info":[])", "[]", R"(["BROADCAST"])",
      R"([{"from":2,"to":5},{"from":3,"to":3},{"from":4,"to":4},{"from":5,"to":5},{"from":6,"to":6}])");
  const VlanError noParent{1, kNotCreated + ": das Interface eth0 gibt es nicht"};
  const Case cases[] = {
      {"reused without a prompt", existing(linkText("eth0", 100, R"("addr_info":[])"))},
      {"down, frames would lose their priority", existing(partlyMapped, {{kComplete, kOk}})},
      {"nobody may mend it",
       existing(partlyMapped, {{kComplete, outcome(127, "", "Not authorized\n")}}),
       {127,
        "Keine Administratorrechte (Not authorized). Bitte von Hand ausführen: sudo sh -c "
        "'/sbin/ip link set dev vlan100 up type vlan egress-qos-map 1:1 7:7'"}},
      {"made", missing({{kCreate, kOk}, {kProbe, kOk}})},
      {"wrong parent", existing(linkText("eth1", 100), replaced({{kProbe, kOk}}))},
      {"wrong id", existing(linkText("eth0", 99), replaced({{kProbe, kOk}}))},
      {"removal dismissed",
       existing(linkText("eth1", 100), {{kProbeParent, kOk}, {kDestroy, outcome(126)}}),
       kCancelled},
      {"no text", missing({{kCreate, outcome(2, "", "\xFF")}}), {2, "unknown"}},
      {"tool failed",
       missing({{kCreate, outcome(2, "", " no memory\n")}}),
       {2, "vlan100: no memory"}},
      {"missing after all", missing({{kCreate, kOk}, {kProbe, kMissing}}), {1, kNotCreated}},
      {"another's link",
       existing("[{}]"),
       {1, kNotCreated + ": ein anderes Interface trägt diesen Namen"}},
      {"no parent", {{kProbe, kMissing}, {kProbeParent, kMissing}}, noParent},
      {"a link of ours, and no parent for the new one",
       existing(linkText("eth1", 100), {{kProbeParent, kMissing}}), noParent},
  };
  for (const auto& c : cases) check(c, kPkexecPrompt);
}

TEST(VlanInterfaceHelper, WhatCannotBeRunsNothing) {
  const std::string noSuchId = " konnte nicht erstellt werden: VLAN-IDs sind 1 bis 4094";
  const std::tuple<const char*, std::uint16_t, VlanError> cases[] = {
      {R"(e 0;"\)", 100, {2, R"(Ungültiger Interface-Name: "e 0;\"\\")"}},
      {"vlan100", 100, {1, kNotCreated + ": es kann nicht auf sich selbst liegen"}},
      {"eth0", 0, {1, "vlan-Interface vlan0" + noSuchId}},
      {"eth0", 4095, {1, "vlan-Interface vlan4095" + noSuchId}},
  };
  VlanInterfaceHelper helper(std::make_unique<ScriptedProcessRunner>(Script{}), kLinuxVlanDialect,
                             kRightsHeld);
  for (const auto& [parent, vid, error] : cases) {
    EXPECT_EQ(helper.ensureVlanInterface(parent, vid).error(), error);
  }
  helper.cancel();
  EXPECT_EQ(helper.ensureVlanInterface("eth0", 4094).error(), kCancelled);
}

TEST(VlanInterfaceHelper, WithRightsHeldTheLinkItselfDecides) {
  const auto failed = outcome(2, "", "Network is down\n");
  const Case cases[] = {
      {"made", missing({{kCreateHeld, kOk}, {kProbe, kOk}})},
      {"not there",
       missing({{kCreateHeld, failed}, {kProbe, kMissing}}),
       {1, kNotCreated + ": Network is down"}},
      {"there but not up",
       missing({{kCreateHeld, failed}, {kProbe, kOk}}),
       {2, "vlan100: Network is down"}},
  };
  for (const auto& c : cases) check(c, kRightsHeld);
}

TEST(VlanInterfaceHelper, ARefusedPromptIsNotPutUpAgainAtOnce) {
  const auto late = make_error_code(boost::system::errc::timed_out);
  auto script = missing({{kCreate, late}});
  for (const auto& probe : missing({})) script.push_back(probe);
  for (const auto& step : existing(linkText("eth0", 100))) script.push_back(step);
  VlanInterfaceHelper helper(std::make_unique<ScriptedProcessRunner>(script), kLinuxVlanDialect,
                             kPkexecPrompt);
  const std::string unanswered = "Niemand hat die Administratorabfrage beantwortet";
  EXPECT_EQ(helper.ensureVlanInterface("eth0", 100).error(),
            (VlanError{kAdminUnanswered, unanswered}));
  const auto again = helper.ensureVlanInterface("eth0", 100).error().description;
  EXPECT_TRUE(again.starts_with(unanswered + "; die nächste Abfrage ist in ")) << again;
  EXPECT_EQ(helper.ensureVlanInterface("eth0", 100).value(), "vlan100") << "made by hand meanwhile";
}

TEST(VlanInterfaceHelper, OnlyALinkThatLacksNothingIsReady) {
  const std::pair<std::string, bool> cases[] = {
      {linkText("eth0", 100), true},
      {linkText("eth0", 100, kOurs, "[]", R"(["NO-CARRIER","UP"])"), true},
      {linkText("eth0", 100, kOurs, "[]", R"(["LOWER_UP"])"), false},
      {linkText("eth1", 100), false},
      {linkText("eth0", 100, kOurs, "[]", kUp, R"([{"from":4,"to":4}])"), false},
      {"", false},
  };
  for (const auto& [text, isReady] : cases) {
    VlanInterfaceHelper helper(
        std::make_unique<ScriptedProcessRunner>(Script{{kReadBack, outcome(0, text)}}),
        kLinuxVlanDialect, kPkexecPrompt);
    EXPECT_EQ(helper.readyVlanInterface("eth0", 100).has_value(), isReady) << text;
  }
}

TEST(VlanDialect, OnlyUnusedLinksOfOurOwnMayBeRemoved) {
  const auto rest = [](const std::string& more) { return R"("ifalias":"tarnlink",)" + more; };
  const auto vlan9 = [](const std::string& more, const std::string& others = "[]") {
    return linkText("eth0", 9, more, others);
  };
  const struct {
    const char* situation;
    std::string text;
    bool isVlan, isKept;
  } cases[] = {
      {"unused", vlan9(kOurs, R"([{"ifname":"vlan100","link":"eth0"}])"), true, false},
      {"not ours", vlan9(R"("addr_info":[])"), true, true},
      {"another's mark", vlan9(R"("ifalias":"tarn","addr_info":[])"), true, true},
      {"any address", vlan9(rest(R"("addr_info":[{"family":"inet6"}])")), true, true},
      {"addresses not told", vlan9(rest(R"("mtu":1500)")), true, true},
      {"port of a bridge", vlan9(rest(R"("master":"br0","addr_info":[])")), true, true},
      {"carries a link", vlan9(kOurs, R"([{"ifname":"upper","link":"vlan100"}])"), true, true},
      {"other links not told", vlan9(kOurs, ""), true, true},
      {"id out of range", linkText("eth0", 65545), false, false},
      {"service tag",
       R"([{"link":"eth0","ifname":"vlan100","linkinfo":{"info_kind":"vlan",)"
       R"("info_data":{"protocol":"802.1ad","id":9}},"ifalias":"tarnlink","addr_info":[]}])"
       "\n[]\n",
       false, false},
      {"no VLAN", R"([{"link":"eth0","linkinfo":{"info_kind":"veth"},"addr_info":[]}])", false,
       true},
      {"no output", "", false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    const auto link = kLinuxVlanDialect.parseReadBack(c.text);
    EXPECT_EQ(link.vlan, c.isVlan ? std::optional(VlanInfo{9, "eth0"}) : std::nullopt);
    EXPECT_EQ(!link.keptBecause.empty(), c.isKept);
  }
}

TEST(PromptRefusals, HoldForAMinuteAndThreeForAllLinks) {
  using namespace std::chrono_literals;
  const AdminError dismissed{kAdminCancelled, "no"};
  const AdminError nobody{kAdminUnavailable, "by hand: x"};
  const PromptRefusals::Instant start{};
  PromptRefusals refusals;
  for (const char* link : {"vlan1", "vlan2", "vlan3"}) refusals.note(link, nobody, start);
  refusals.note("vlan4", {2, "no such device"}, start);
  EXPECT_EQ(refusals.standing("vlan1", start), nobody);
  EXPECT_EQ(refusals.standing("vlan4", start), std::nullopt);
  refusals.note("vlan4", dismissed, start);
  EXPECT_EQ(refusals.standing("vlan4", start + 59s),
            (AdminError{kAdminCancelled, "no; die nächste Abfrage ist in 1 s möglich"}));
  EXPECT_EQ(refusals.standing("vlan4", start + 60s), std::nullopt);
  refusals.note("vlan5", dismissed, start + 60s);
  refusals.note("vlan6", dismissed, start + 70s);
  EXPECT_EQ(refusals.standing("vlan8", start + 70s), std::nullopt);
  refusals.note("vlan7", dismissed, start + 80s);
  EXPECT_EQ(refusals.standing("vlan8", start + 80s),
            (AdminError{kAdminCancelled, "no; die nächste Abfrage ist in 40 s möglich"}));
  EXPECT_EQ(refusals.standing("vlan8", start + 120s), std::nullopt);
}

}  // namespace
}  // namespace tarnlink
