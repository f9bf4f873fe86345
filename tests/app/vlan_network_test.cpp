// The real tool on real links, in a network of the test's own.
#include <gtest/gtest.h>
#include <net/if.h>

#include "app/host/vlan_interface_helper.h"
#include "tests/support/network_namespace.h"

namespace tarnlink {
namespace {

class VlanNetwork : public test::ProcessBusTest {
 protected:
  static bool addByHand(const std::string& name) {
    const std::string add = "/sbin/ip link add link bus0 type vlan id 100 name " + name;
    return makeProcessRunner()->run({"/bin/sh", "-c", add}).value().succeeded();
  }
  // The kernel may be built without 802.1Q.
  static bool hasVlans() {
    if (!addByHand("probe")) return false;
    test::NetworkNamespace::removeLink("probe");
    return true;
  }

  std::unique_ptr<VlanSetup> setup_ = VlanInterfaceHelper::forThisSystem();
};

TEST_F(VlanNetwork, LinkIsMadeMendedAndMoved) {
  if (!hasVlans()) GTEST_SKIP() << "a kernel without 802.1Q";
  EXPECT_EQ(setup_->ensureVlanInterface(kBus, 100).value(), "vlan100");
  const unsigned first = ::if_nametoindex("vlan100");
  EXPECT_EQ(setup_->readyVlanInterface(kBus, 100), "vlan100");
  test::NetworkNamespace::setUp("vlan100", false);
  EXPECT_EQ(setup_->readyVlanInterface(kBus, 100), std::nullopt);
  EXPECT_EQ(setup_->ensureVlanInterface(kBus, 100).value(), "vlan100");
  EXPECT_EQ(setup_->readyVlanInterface(kBus, 100), "vlan100");
  EXPECT_EQ(::if_nametoindex("vlan100"), first);
  EXPECT_EQ(setup_->ensureVlanInterface(kIed, 100).value(), "vlan100");
  EXPECT_NE(::if_nametoindex("vlan100"), first);

  test::NetworkNamespace::removeLink("vlan100");
  ASSERT_TRUE(addByHand("vlan100"));
  EXPECT_EQ(setup_->ensureVlanInterface(kBus, 100).value(), "vlan100") << "gets its map";
  EXPECT_EQ(setup_->readyVlanInterface(kBus, 100), "vlan100");
  EXPECT_FALSE(setup_->ensureVlanInterface(kIed, 100)) << "and stays";
}

TEST_F(VlanNetwork, KernelWithoutVlansIsAnOrdinaryFailure) {
  if (hasVlans()) GTEST_SKIP() << "a kernel with 802.1Q";
  EXPECT_EQ(setup_->ensureVlanInterface(kBus, 100).error(),
            (VlanError{1,
                       "vlan-Interface vlan100 konnte nicht erstellt werden: Error: Unknown device "
                       "type."}));
}

}  // namespace
}  // namespace tarnlink
