#include "app/host/vlan_interface_helper.h"

#include <gtest/gtest.h>

#include "tests/support/scripted_process_runner.h"

namespace tarnlink {
namespace {

using test::outcome;
using test::ScriptedCommand;
using test::ScriptedProcessRunner;
using Script = std::vector<ScriptedCommand>;
using Argv = std::vector<std::string>;

const std::string kName = "vlan100";
const std::string kNotCreated = "vlan-Interface vlan100 konnte nicht erstellt werden";
const VlanError kCancelled{-128, "Benutzer hat abgebrochen"};
const auto kOk = outcome(0);
const auto kMissing = outcome(1, "", "Device \"vlan100\" does not exist.\n");

struct Case {
  const char* situation;
  Script script;
  VlanResult<std::string> expected;
};

void check(const Case& c, const VlanDialect& dialect, AdminRights rights,
           const std::string& parent) {
  SCOPED_TRACE(c.situation);
  VlanInterfaceHelper helper(std::make_unique<ScriptedProcessRunner>(c.script), dialect, rights);
  const auto result = helper.ensureVlanInterface(parent, 100);
  EXPECT_EQ(result ? *result : "", c.expected ? *c.expected : "");
  EXPECT_EQ(result.error().code, c.expected.error().code);
  EXPECT_EQ(result.error().description, c.expected.error().description);
}

// What the address listing says of a VLAN link.
std::string linkText(const std::string& parent, int vid,
                     const std::string& rest = R"("addr_info":[])") {
  return R"([{"link":")" + parent +
         R"(","linkinfo":{"info_kind":"vlan","info_data":{"protocol":"802.1Q","id":)" +
         std::to_string(vid) + "}}," + rest + "}]\n";
}

namespace linux_tool {

const std::string kCreateLine =
    "/sbin/ip link add link eth0 name vlan100 type vlan id 100 egress-qos-map 0:0 1:1 2:2 3:3 4:4 "
    "5:5 6:6 7:7; /sbin/ip link set dev vlan100 up";
const Argv kProbe{"/sbin/ip", "-json", "link", "show", "dev", "vlan100"};
const Argv kReadBack{"/sbin/ip", "-json", "-details", "address", "show", "dev", "vlan100"};
const Argv kCreateHeld{"/bin/sh", "-c", kCreateLine};
const Argv kCreate{"/usr/bin/pkexec", "--disable-internal-agent", "/bin/sh", "-c", kCreateLine};
const Argv kDestroy{"/usr/bin/pkexec", "--disable-internal-agent", "/bin/sh", "-c",
                    "/sbin/ip link delete dev vlan100"};

Script existing(const std::string& text, Script rest = {}) {
  Script script{{kProbe, kOk}, {kReadBack, outcome(0, text)}};
  script.insert(script.end(), rest.begin(), rest.end());
  return script;
}

TEST(VlanInterfaceHelper, LinuxAsksOnceForEachCommandLine) {
  const Script made{{kDestroy, kOk}, {kCreate, kOk}, {kProbe, kOk}};
  const Case cases[] = {
      {"reused without a prompt", existing(linkText("eth0", 100)), kName},
      {"made", {{kProbe, kMissing}, {kCreate, kOk}, {kProbe, kOk}}, kName},
      {"wrong parent", existing(linkText("eth1", 100), made), kName},
      {"wrong id", existing(linkText("eth0", 99), made), kName},
      {"removal dismissed", existing(linkText("eth1", 100), {{kDestroy, outcome(126)}}),
       kCancelled},
      {"prompt dismissed", {{kProbe, kMissing}, {kCreate, outcome(126)}}, kCancelled},
      {"no text", {{kProbe, kMissing}, {kCreate, outcome(2, "", "\xFF")}}, VlanError{2, "unknown"}},
      {"missing after all",
       {{kProbe, kMissing}, {kCreate, kOk}, {kProbe, kMissing}},
       VlanError{1, kNotCreated}},
      {"another's link", existing("[{}]"),
       VlanError{1, kNotCreated + ": ein anderes Interface trägt diesen Namen"}},
  };
  for (const auto& c : cases) check(c, kLinuxVlanDialect, AdminRights::pkexec, "eth0");
  check({"bad name", {}, VlanError{2, R"(Ungültiger Interface-Name: "e 0;\"\\")"}},
        kLinuxVlanDialect, AdminRights::pkexec, R"(e 0;"\)");
}

TEST(VlanInterfaceHelper, WithRightsHeldTheLinkItselfDecides) {
  const auto failed = outcome(2, "", "Network is down\n");
  const Case cases[] = {
      {"made", {{kProbe, kMissing}, {kCreateHeld, kOk}, {kProbe, kOk}}, kName},
      {"not there",
       {{kProbe, kMissing}, {kCreateHeld, failed}, {kProbe, kMissing}},
       VlanError{1, kNotCreated + ": Network is down"}},
      {"there but not up",
       {{kProbe, kMissing}, {kCreateHeld, failed}, {kProbe, kOk}},
       VlanError{2, "Network is down\n"}},
  };
  for (const auto& c : cases) check(c, kLinuxVlanDialect, AdminRights::held, "eth0");
}

}  // namespace linux_tool

TEST(VlanDialect, LinksInUseAreKept) {
  const auto addresses = [](const std::string& entry) { return "\"addr_info\":[{" + entry + "}]"; };
  const struct {
    const char* situation;
    std::string text;
    bool isVlan, isKept;
  } cases[] = {
      {"unused", linkText("eth0", 9), true, false},
      {"its own link-local address",
       linkText("eth0", 9, addresses(R"("family":"inet6","scope":"link")")), true, false},
      {"IPv4", linkText("eth0", 9, addresses(R"("family":"inet","scope":"link")")), true, true},
      {"IPv6", linkText("eth0", 9, addresses(R"("family":"inet6","scope":"global")")), true, true},
      {"addresses not told", linkText("eth0", 9, R"("mtu":1500)"), true, true},
      {"port of a bridge", linkText("eth0", 9, R"("master":"br0","addr_info":[])"), true, true},
      {"id out of range", linkText("eth0", 65545), false, false},
      {"service tag",
       R"([{"link":"eth0","linkinfo":{"info_kind":"vlan","info_data":{"protocol":"802.1ad","id":9}},)"
       R"("addr_info":[]}])",
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

TEST(VlanInterfaceHelper, BsdSpeaksIfconfig) {
  const auto prompt = [](const std::string& line) -> Argv {
    return {"/usr/bin/osascript", "-e",
            "do shell script \"" + line + "\" with administrator privileges"};
  };
  const Argv probe{"/bin/sh", "-c", "ifconfig vlan100"};
  const Argv readBack{"/sbin/ifconfig", "vlan100"};
  const Argv create =
      prompt("ifconfig vlan100 create; ifconfig vlan100 vlan 100 vlandev en0; ifconfig vlan100 up");
  const Argv destroy = prompt("ifconfig vlan100 destroy");
  const auto link = [&](const std::string& line) {
    return ScriptedCommand{readBack, outcome(0, "vlan100: mtu 1500\n\t" + line + "\n\tactive\n")};
  };
  const Case cases[] = {
      {"reused", {{probe, kOk}, link("vlan: 100 parent interface: en0")}, kName},
      {"wrong parent",
       {{probe, kOk},
        link("vlan: 100 parent interface: en1"),
        {destroy, kOk},
        {create, kOk},
        {probe, kOk}},
       kName},
      {"removal dismissed",
       {{probe, kOk}, link("vlan: 65636 parent interface: en0"), {destroy, outcome(1, "", "-128")}},
       kCancelled},
      {"missing after all",
       {{probe, kMissing}, {create, kOk}, {probe, kMissing}},
       VlanError{1, kNotCreated}},
  };
  for (const auto& c : cases) check(c, kBsdVlanDialect, AdminRights::osascript, "en0");
}

TEST(VlanInterfaceHelper, ACancelledOneRunsNothingMore) {
  VlanInterfaceHelper helper(std::make_unique<ScriptedProcessRunner>(Script{}), kLinuxVlanDialect,
                             AdminRights::held);
  helper.cancel();
  EXPECT_EQ(helper.ensureVlanInterface("eth0", 100).error(), kCancelled);
}

}  // namespace
}  // namespace tarnlink
