// What Linux programs do not link: the commands that macOS's tools get, and how their answers are
// read.
#include <gtest/gtest.h>

#include <boost/asio/executor_work_guard.hpp>
#include <cerrno>
#include <filesystem>
#include <future>
#include <thread>

#include "app/host/vlan_interface_helper.h"
#include "macos/bpf_device_access.h"
#include "macos/ifconfig_dialect.h"
#include "macos/in_process_bridge.h"
#include "macos/link_layer_address.h"
#include "macos/osascript_prompt.h"
#include "tests/server/bridge_harness.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/scripted_process_runner.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using test::outcome;
using test::ScriptedProcessRunner;
using Script = std::vector<test::ScriptedCommand>;

std::vector<std::string> prompt(const std::string& line) {
  return {"/usr/bin/osascript", "-e",
          "do shell script \"" + line + "\" with administrator privileges"};
}
const auto kOk = outcome(0);

TEST(Osascript, OnlyItsWordsTellADismissedPromptFromAFailedTool) {
  const std::pair<std::string, AdminError> cases[] = {
      {"execution error (-128)\n", {-128, "Benutzer hat abgebrochen"}},
      {"User CANCELED.\n", {-128, "Benutzer hat abgebrochen"}},
      {"boom\n", {1, "boom\n"}},
  };
  for (const auto& [text, error] : cases) {
    ScriptedProcessRunner runner({{prompt(R"(a \"b\\c\" 'd')"), outcome(1, "", text)}});
    EXPECT_EQ(runAsAdmin(runner, kOsascriptPrompt, R"(a "b\c" 'd')").error(), error);
  }
}

TEST(Ifconfig, LinksAreReusedMadeAndReplaced) {
  const std::vector<std::string> probe{"/bin/sh", "-c", "ifconfig vlan100"};
  const auto create =
      prompt("ifconfig vlan100 create; ifconfig vlan100 vlan 100 vlandev en0; ifconfig vlan100 up");
  const auto destroy = prompt("ifconfig vlan100 destroy");
  const auto link = [&](const std::string& line) {
    return test::ScriptedCommand{{"/sbin/ifconfig", "vlan100"},
                                 outcome(0, "vlan100: mtu 1500\n\t" + line + "\n\tactive\n")};
  };
  const struct {
    const char* situation;
    Script script;
    int code;  // 0: the link is there.
  } cases[] = {
      {"reused", {{probe, kOk}, link("vlan: 100 parent interface: en0")}, 0},
      {"missing", {{probe, outcome(1)}, {create, kOk}, {probe, kOk}}, 0},
      {"wrong parent",
       {{probe, kOk},
        link("vlan: 100 parent interface: en1"),
        {destroy, kOk},
        {create, kOk},
        {probe, kOk}},
       0},
      {"unreadable, and kept by the user",
       {{probe, kOk}, link("vlan: 65636 parent interface: en0"), {destroy, outcome(1, "", "-128")}},
       -128},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    VlanInterfaceHelper helper(std::make_unique<ScriptedProcessRunner>(c.script), kBsdVlanDialect,
                               kOsascriptPrompt);
    const auto result = helper.ensureVlanInterface("en0", 100);
    EXPECT_EQ(result ? 0 : result.error().code, c.code);
  }
}

constexpr const char* kPropertyList =
    R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
    <key>Label</key>
    <string>com.korvel.tarnlink.chmodbpf</string>
    <key>ProgramArguments</key>
    <array>
        <string>/bin/sh</string>
        <string>-c</string>
        <string>chgrp admin /dev/bpf* 2>/dev/null; chmod g+rw /dev/bpf*</string>
    </array>
    <key>RunAtLoad</key>
    <true/>
    <key>KeepAlive</key>
    <false/>
</dict>
</plist>)";

TEST(BpfDevices, TheFirstThatIsThereDecides) {
  const test::ScratchFolder folder;
  const auto isGranted = [&] {
    return BpfDeviceAccess(nullptr, folder.path(), (folder / "bpf").string()).isGranted();
  };
  EXPECT_FALSE(isGranted());
  test::writeFile(folder / "bpf256", "");
  EXPECT_FALSE(isGranted());
  test::writeFile(folder / "bpf255", "");
  EXPECT_TRUE(isGranted());
  // Unreadable for root too: a link to itself.
  fs::create_symlink("bpf0", folder / "bpf0");
  EXPECT_FALSE(isGranted());
}

TEST(BpfDevices, OnlyASuccessfulInstallationTakesItsFileAway) {
  const test::ScratchFolder folder;
  const auto draft = folder / "com.korvel.tarnlink.chmodbpf.plist";
  const std::string daemon = "'/Library/LaunchDaemons/com.korvel.tarnlink.chmodbpf.plist'";
  const auto argv = prompt("cp '" + draft.string() + "' " + daemon + " && chown root:wheel " +
                           daemon + " && chmod 644 " + daemon + " && launchctl load " + daemon +
                           " 2>/dev/null; chgrp admin /dev/bpf* 2>/dev/null; chmod g+rw /dev/bpf*");
  const auto install = [&](const ProcessOutcome& answer) {
    return BpfDeviceAccess(std::make_unique<ScriptedProcessRunner>(Script{{argv, answer}}),
                           folder.path())
        .install();
  };
  BpfDeviceAccess nowhere(nullptr, folder / "absent");
  EXPECT_EQ(nowhere.install().error(), (AdminError{ENOENT, "No such file or directory"}));
  EXPECT_EQ(install(outcome(1, "", "User canceled. (-128)\n")).error().code, kAdminCancelled);
  EXPECT_EQ(test::contentOf(draft), kPropertyList);
  EXPECT_TRUE(install(kOk));
  EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(LinkLayerAddress, HoldsItsMacBehindTheName) {
  using goosestack::Bytes;
  constexpr goosestack::MacAddress kMac{0x3C, 0x22, 0xFB, 0x01, 0xAB, 0x0E};
  // length, family, index, type, name length, address length, selector length, the name, kMac.
  const auto make = [&](std::uint8_t length, std::uint8_t nameLength, std::uint8_t addressLength) {
    Bytes address{length, 18, 4, 0, 6, nameLength, addressLength, 0};
    address.insert(address.end(), nameLength, 'n');
    address.insert(address.end(), kMac.begin(), kMac.end());
    return address;
  };
  const struct {
    const char* situation;
    Bytes address;
    std::optional<goosestack::MacAddress> mac;
  } cases[] = {
      {"usual", make(20, 3, 6), kMac},
      {"eight-octet address", make(20, 3, 8), kMac},
      {"length field below the structure's size", make(8, 6, 6), kMac},
      {"MAC ends behind the structure", make(20, 7, 6), std::nullopt},
      {"long name in a long structure", make(21, 7, 6), kMac},
      {"five-octet address", make(20, 3, 5), std::nullopt},
  };
  for (const auto& [situation, address, mac] : cases) {
    EXPECT_EQ(goosestack::macBytesFromSockaddrDL(address), mac) << situation;
  }
  const auto whole = make(20, 3, 6);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    // A heap copy of exactly this length, so that the address sanitizer sees a read behind it.
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_FALSE(goosestack::macBytesFromSockaddrDL(cut)) << length;
  }
}

TEST(InProcessBridge, DrivesAServerOnAnotherThread) {
  test::BridgeHarness harness;
  auto work = boost::asio::make_work_guard(harness.io);
  std::thread server([&] { harness.io.run(); });
  InProcessBridge bridge(harness.io.get_executor(), harness.server);
  const auto start = [&bridge](std::uint16_t port) {
    std::promise<BridgeResult<void>> started;
    bridge.start(port, [&](const BridgeResult<void>& result) { started.set_value(result); });
    return started.get_future().get();
  };
  EXPECT_TRUE(start(kDefaultBridgePort));
  std::promise<void> switched;
  bridge.setActiveInterface("en-7.5", [&] { switched.set_value(); });
  switched.get_future().get();
  EXPECT_EQ(BridgeServer::sharedActiveInterface(), "en-7.5");
  bridge.stop();
  EXPECT_EQ(harness.logLines.back(), "[BridgeServer] Stopped");
  EXPECT_EQ(start(0).error().description(), "Invalid bridge port: 0");
  work.reset();
  server.join();
}

}  // namespace
}  // namespace tarnlink
