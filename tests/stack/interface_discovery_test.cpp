#include "goosestack/interface_discovery.h"

#include <gmock/gmock.h>

#include <cstdlib>

#include "tests/support/network_namespace.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using ::testing::ElementsAre;
using Discovery = InterfaceDiscovery;

constexpr MacAddress kMac{0x3C, 0x22, 0xFB, 0x01, 0xAB, 0x0E};

LinkLayerEntry upEntry(std::string name, std::optional<MacAddress> mac = kMac) {
  return {.name = std::move(name), .isUp = true, .supportsMulticast = true, .mac = mac};
}

std::vector<std::string> selected(std::span<const LinkLayerEntry> entries) {
  std::vector<std::string> shown;
  for (auto& info : Discovery::selectEthernetInterfaces(entries, {{"en0", "Station bus"}})) {
    shown.push_back(info.displayName);
  }
  return shown;
}

TEST(InterfaceSelection, PutsUpBeforeDownAndSortsNamesAsTexts) {
  auto down = upEntry("en1");
  down.isUp = false;
  const LinkLayerEntry entries[] = {upEntry("pdp_ip0"), down, upEntry("en10"), upEntry("en7"),
                                    upEntry("en0")};
  EXPECT_THAT(selected(entries), ElementsAre("Station bus", "Ethernet (en10)", "Ethernet (en7)",
                                             "Cellular (pdp_ip0)", "Ethernet (en1)"));
}

TEST(InterfaceSelection, LeavesOutWhatIsNoEthernetAndAllButTheFirstEntryOfAName) {
  auto loopback = upEntry("dummy9");
  loopback.isLoopback = true;
  std::vector entries{loopback, upEntry("wpan0", std::nullopt), upEntry("sit0", MacAddress{}),
                      upEntry("eth1", std::nullopt)};
  for (const char* name : {"lo0", "ap1", "apple", "bridge0", "utun3", "docker0", "virbr0", "br-4f",
                           "eth1", "veth0", "veth0", "br0", "Lo1", "vlan5"}) {
    entries.push_back(upEntry(name));
  }
  EXPECT_THAT(selected(entries), ElementsAre("Lo1", "br0", "veth0", "vlan5"));
}

class SystemInterfaces : public test::ProcessBusTest {};

TEST_F(SystemInterfaces, AreListedWithTheirAddressAndState) {
  ASSERT_EQ(std::system("PATH=$PATH:/usr/sbin:/sbin; ip link set bus0 multicast off down && "
                        "ip link set ied0 address 02:00:5E:10:00:0A"),
            0);
  const NetworkInterfaceInfo ied{kIed, kIed, true, "02:00:5E:10:00:0A", true};
  const auto list = Discovery::listEthernetInterfaces(nullptr);
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0], ied);
  EXPECT_EQ(list[1].name, kBus);
  EXPECT_FALSE(list[1].isUp);
  EXPECT_FALSE(list[1].supportsMulticast);
  EXPECT_EQ(Discovery::macAddressBytes(kIed), (MacAddress{0x02, 0x00, 0x5E, 0x10, 0x00, 0x0A}));
  EXPECT_EQ(Discovery::macAddressBytes("absent0"), std::nullopt);
}

}  // namespace
}  // namespace tarnlink
