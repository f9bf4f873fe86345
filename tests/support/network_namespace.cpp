#include "tests/support/network_namespace.h"

#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace tarnlink::test {
namespace {

void writeFile(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  if (!file) throw std::system_error(errno, std::generic_category(), path);
}

void ip(const std::string& arguments) {
  // Debian keeps ip in /sbin, which is not on the path of ordinary users.
  const std::string command = "PATH=$PATH:/usr/sbin:/sbin ip " + arguments;
  if (std::system(command.c_str()) != 0) throw std::runtime_error(command + " failed");
}

void leaveTheMachinesNetwork() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == 0 && unshare(CLONE_NEWNET) == 0) return;
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    throw std::system_error(errno, std::generic_category(),
                            "no private network namespace, as root or in a user namespace");
  }
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

}  // namespace

void NetworkNamespace::enter() {
  static const bool entered = [] {
    leaveTheMachinesNetwork();
    ip("link set lo up");
    return true;
  }();
  (void)entered;
}

void NetworkNamespace::addVethPair(const std::string& one, const std::string& other, int mtu) {
  const std::string size = " mtu " + std::to_string(mtu);
  ip("link add " + one + size + " type veth peer name " + other + size);
  setUp(one, true);
  setUp(other, true);
}

void NetworkNamespace::removeLink(const std::string& name) {
  ip("link delete " + name);
}

void NetworkNamespace::setUp(const std::string& name, bool up) {
  ip("link set " + name + (up ? " up" : " down"));
}

void NetworkNamespace::rename(const std::string& name, const std::string& to) {
  ip("link set " + name + " name " + to);
}

void ProcessBusTest::SetUp() {
  NetworkNamespace::enter();
  NetworkNamespace::addVethPair(kBus, kIed);
}

void ProcessBusTest::TearDown() {
  if (if_nametoindex(kBus) != 0) NetworkNamespace::removeLink(kBus);
}

}  // namespace tarnlink::test
