// A network of the test's own: a private network namespace with loopback and veth pairs. The kernel
// takes all of it down with the process, whatever way it ends.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace tarnlink::test {

/// Moves the whole process, so it is entered while the process still has one thread: from a
/// fixture's SetUp, before anything under test exists. Without root it comes with a user namespace
/// in which the process holds every capability over that network and none over the machine.
/// All functions throw std::runtime_error with the command or call that failed.
class NetworkNamespace {
 public:
  NetworkNamespace() = delete;

  /// Does its work once per process; loopback is up afterwards.
  static void enter();

  /// Both ends are up and ready to carry frames of `mtu` octets.
  static void addVethPair(const std::string& one, const std::string& other, int mtu = 1500);

  /// Of a veth pair, either end takes the other with it.
  static void removeLink(const std::string& name);
  static void setUp(const std::string& name, bool up);
  /// The link must be down.
  static void rename(const std::string& name, const std::string& to);
};

/// A process bus: what is sent on one end arrives on the other. Every case gets a fresh pair.
class ProcessBusTest : public ::testing::Test {
 protected:
  static constexpr const char* kBus = "bus0";  ///< The end under test.
  static constexpr const char* kIed = "ied0";  ///< The end that plays the rest of the world.

  void SetUp() override;
  void TearDown() override;
};

}  // namespace tarnlink::test
