// The names of network connections, asked of a stand-in NetworkManager on a private message bus.
#include "platform/interface_names.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string_view>
#include <tuple>

#include "tests/support/bus_service.h"
#include "tests/support/dns_sd_host.h"

namespace tarnlink {
namespace {

using Names = std::map<std::string, std::string>;

// A loaded machine may be slow to wake the caller.
constexpr auto kLimitWithSlack = kInterfaceNamesLimit + std::chrono::milliseconds(150);

/// Two Ethernet connections, a VPN over the first, a second one on its device, and a modem.
void answer(sd_bus_message* call) {
  const std::string_view path = ::sd_bus_message_get_path(call);
  const auto active = [call](const char* id, bool vpn, const char* device) {
    ::sd_bus_reply_method_return(call, "a{sv}", 5, "State", "u", 2U, "Id", "s", id, "Vpn", "b", vpn,
                                 "Ip4Config", "o", "/", "Devices", "ao", 1, device);
  };
  const auto device = [call](const char* name, const char* ipName) {
    ::sd_bus_reply_method_return(call, "a{sv}", 4, "StateReason", "(uu)", 100U, 0U, "Interface",
                                 "s", name, "LldpNeighbors", "aa{sv}", 0, "IpInterface", "s",
                                 ipName);
  };
  if (path == "/org/freedesktop/NetworkManager") {
    ::sd_bus_reply_method_return(call, "a{sv}", 2, "Version", "s", "1.42.4", "ActiveConnections",
                                 "ao", 5, "/vpn", "/one", "/again", "/modem", "/two");
  }
  if (path == "/vpn") active("Head office", true, "/device/one");
  if (path == "/one") active("Station bus", false, "/device/one");
  if (path == "/again") active("Second on it", false, "/device/one");
  if (path == "/modem") active("Mobile", false, "/device/modem");
  if (path == "/two") active("Process bus", false, "/device/two");
  if (path == "/device/one") device("test1", "test1");
  if (path == "/device/two") device("test2", "");
  if (path == "/device/modem") device("modem7", "modem7ip");
}

// The names of the stand-in's interfaces; how long they took is checked against `within`.
Names connectionNames(std::chrono::milliseconds within) {
  const auto begin = std::chrono::steady_clock::now();
  auto names = interfaceDisplayNames();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, within);
  std::erase_if(names, [](const auto& item) {  // Models of this machine's hardware.
    return !item.first.starts_with("test") && !item.first.starts_with("modem");
  });
  return names;
}

TEST(InterfaceNames, AreThoseOfTheConnectionsWhoseDevicesAnswerInTime) {
  const Names ethernet{{"test1", "Station bus"}, {"test2", "Process bus"}};
  const Names all{{"test1", "Station bus"},
                  {"test2", "Process bus"},
                  {"modem7", "Mobile"},
                  {"modem7ip", "Mobile"}};
  // The path that is silent, "*" for all of them; absent: there is no manager.
  const std::tuple<std::optional<std::string>, std::chrono::milliseconds, Names> cases[] = {
      {"", kInterfaceNamesLimit, all},
      {"/device/modem", kLimitWithSlack, ethernet},
      {"*", kLimitWithSlack, {}},
      {std::nullopt, kInterfaceNamesLimit / 2, {}},
  };
  test::DnsSdHost host;
  host.use();
  host.startBus();
  for (const auto& [silentPath, within, names] : cases) {
    SCOPED_TRACE(silentPath.value_or("no manager"));
    std::optional<test::BusService> manager;
    if (silentPath) {
      manager.emplace("org.freedesktop.NetworkManager", "GetAll",
                      [silent = *silentPath](sd_bus_message* call) {
                        if (silent != "*" && silent != ::sd_bus_message_get_path(call))
                          answer(call);
                      });
    }
    EXPECT_EQ(connectionNames(within), names);
  }
}

TEST(InterfaceNames, ABusThatIsNotThereOrNeverGreetsIsLeftBehind) {
  test::DnsSdHost host;
  host.use();
  EXPECT_EQ(connectionNames(kInterfaceNamesLimit / 2), Names());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, host.busSocket().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  EXPECT_EQ(connectionNames(kLimitWithSlack), Names());
  ::close(listener);
}

}  // namespace
}  // namespace tarnlink
