// The real tool on real links, in a network of the test's own.
#include <gtest/gtest.h>
#include <net/if.h>

#include <cstdlib>

#include "app/host/vlan_interface_helper.h"
#include "tests/support/network_namespace.h"

namespace tarnlink {
namespace {

bool addByHand(const std::string& name) {
  const std::string add = "/sbin/ip link add link bus0 type vlan id 100 name " + name;
  return std::system((add + " 2>/dev/null").c_str()) == 0;
}

class VlanNetwork : public test::ProcessBusTest {};

TEST_F(VlanNetwork, LinksAreMadeMendedAndMovedWhereTheKernelHasThem) {
  const std::unique_ptr<VlanSetup> setup = std::make_unique<VlanInterfaceHelper>(
      makeProcessRunner(std::chrono::minutes(1)), kLinuxVlanDialect, kRightsHeld);
  const auto made = setup->ensureVlanInterface(kBus, 100);
  if (!addByHand("probe")) {  // The kernel may be built without 802.1Q.
    EXPECT_EQ(made.error(), (VlanError{1,
                                       "vlan-Interface vlan100 konnte nicht erstellt werden: "
                                       "Error: Unknown device type."}));
    return;
  }
  test::NetworkNamespace::removeLink("probe");
  EXPECT_EQ(made.value(), "vlan100");
  const unsigned first = ::if_nametoindex("vlan100");
  EXPECT_EQ(setup->readyVlanInterface(kBus, 100), "vlan100");
  test::NetworkNamespace::setUp("vlan100", false);
  EXPECT_EQ(setup->readyVlanInterface(kBus, 100), std::nullopt);
  EXPECT_EQ(setup->ensureVlanInterface(kBus, 100).value(), "vlan100");
  EXPECT_EQ(setup->readyVlanInterface(kBus, 100), "vlan100");
  EXPECT_EQ(::if_nametoindex("vlan100"), first);
  EXPECT_EQ(setup->ensureVlanInterface(kIed, 100).value(), "vlan100");
  EXPECT_NE(::if_nametoindex("vlan100"), first);

  test::NetworkNamespace::removeLink("vlan100");
  ASSERT_TRUE(addByHand("vlan100"));
  EXPECT_EQ(setup->ensureVlanInterface(kBus, 100).value(), "vlan100") << "gets its map";
  EXPECT_EQ(setup->readyVlanInterface(kBus, 100), "vlan100");
  EXPECT_FALSE(setup->ensureVlanInterface(kIed, 100)) << "and stays";
}

}  // namespace
}  // namespace tarnlink
