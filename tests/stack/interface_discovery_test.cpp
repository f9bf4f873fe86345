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

std::vector<std::string> selectedNames(const std::vector<LinkLayerEntry>& entries) {
  std::vector<std::string> names;
  for (auto& info : Discovery::selectEthernetInterfaces(entries, {})) names.push_back(info.name);
  return names;
}

TEST(InterfaceSelection, PutsUpBeforeDownAndSortsNamesAsTexts) {
  auto down = upEntry("en1");
  down.isUp = false;
  EXPECT_THAT(
      selectedNames({upEntry("en2"), down, upEntry("en10"), upEntry("en7"), upEntry("en0")}),
      ElementsAre("en0", "en10", "en2", "en7", "en1"));
}

TEST(InterfaceSelection, LeavesOutWhatIsNoEthernet) {
  auto loopback = upEntry("dummy9");
  loopback.isLoopback = true;
  std::vector entries{loopback, upEntry("wpan0", std::nullopt), upEntry("sit0", MacAddress{})};
  for (const char* name : {"lo0", "ap1", "apple", "bridge0", "utun3", "docker0", "virbr0", "br-4f"})
    entries.push_back(upEntry(name));
  for (const char* name : {"veth0", "br0", "Lo1", "vlan5"}) entries.push_back(upEntry(name));
  EXPECT_THAT(selectedNames(entries), ElementsAre("Lo1", "br0", "veth0", "vlan5"));
}

TEST(InterfaceSelection, TakesOnlyTheFirstEntryOfANameEvenOneWithoutMac) {
  EXPECT_THAT(
      selectedNames({upEntry("en0"), upEntry("en0"), upEntry("en1", std::nullopt), upEntry("en1")}),
      ElementsAre("en0"));
}

TEST(InterfaceSelection, NamesWithoutADisplayNameGetTheFallback) {
  std::vector<std::string> shown;
  const std::vector entries{upEntry("en0"), upEntry("en5"), upEntry("eth3"), upEntry("pdp_ip0")};
  for (auto& info : Discovery::selectEthernetInterfaces(entries, {{"en0", "Station bus"}})) {
    shown.push_back(info.displayName);
  }
  EXPECT_THAT(shown, ElementsAre("Station bus", "Ethernet (en5)", "eth3", "Cellular (pdp_ip0)"));
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
