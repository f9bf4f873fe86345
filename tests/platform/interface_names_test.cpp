// The names of network connections, asked of a stand-in NetworkManager on a private message bus.
#include "platform/interface_names.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <thread>

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

// A loaded machine may be slow to wake the caller.
constexpr auto kLimitWithSlack = kInterfaceNamesLimit + std::chrono::milliseconds(150);

class SystemBus : public ::testing::Test {
 protected:
  SystemBus() {
    std::string pattern = fs::temp_directory_path() / "bus-XXXXXX";
    directory_ = ::mkdtemp(pattern.data());
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socketPath()).c_str(), 1);
  }
  ~SystemBus() override {
    if (daemon_ > 0) {
      ::kill(daemon_, SIGTERM);
      ::waitpid(daemon_, nullptr, 0);
    }
    fs::remove_all(directory_);
  }

  std::string socketPath() const { return directory_ / "bus"; }
  // Made by the service that the bus would start for NetworkManager's name.
  fs::path startedMark() const { return directory_ / "started"; }

  void startBus() {
    std::ofstream(directory_ / "org.freedesktop.NetworkManager.service")
        << "[D-BUS Service]\nName=org.freedesktop.NetworkManager\nExec=/usr/bin/touch "
        << startedMark().string() << "\n";
    const std::string config = directory_ / "bus.conf";
    std::ofstream(config)
        << "<busconfig><type>session</type><listen>unix:path=" << socketPath()
        << "</listen><servicedir>" << directory_.string()
        << "</servicedir><policy context=\"default\"><allow send_destination=\"*\"/>"
           "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>";
    daemon_ = ::fork();
    if (daemon_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);
      ::execlp("dbus-daemon", "dbus-daemon", "--nofork", "--config-file", config.c_str(), nullptr);
      ::_exit(127);
    }
    for (int i = 0; i < 500 && !fs::exists(socketPath()); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(fs::exists(socketPath())) << "dbus-daemon (package dbus-daemon) did not start";
  }

  fs::path directory_;
  pid_t daemon_ = 0;
};

// Two Ethernet connections, a VPN over the first, a modem, and one whose device is not answered
// for (`silentPath`).
class FakeNetworkManager {
 public:
  explicit FakeNetworkManager(std::string silentPath = {}) : silentPath_(std::move(silentPath)) {
    EXPECT_GE(::sd_bus_open_system(&bus_), 0);
    EXPECT_GE(::sd_bus_add_filter(bus_, nullptr, &onMessage, this), 0);
    EXPECT_GE(::sd_bus_request_name(bus_, "org.freedesktop.NetworkManager", 0), 0);
    thread_ = std::thread([this] {
      while (!stopped_) {
        const int processed = ::sd_bus_process(bus_, nullptr);
        if (processed < 0) return;
        if (processed == 0) ::sd_bus_wait(bus_, 10'000);
      }
    });
  }
  ~FakeNetworkManager() {
    stopped_ = true;
    thread_.join();
    ::sd_bus_flush_close_unref(bus_);
  }

 private:
  static int onMessage(sd_bus_message* message, void* context, sd_bus_error*) {
    if (::sd_bus_message_is_method_call(message, nullptr, "GetAll") <= 0) return 0;
    const std::string path = ::sd_bus_message_get_path(message);
    const auto& self = *static_cast<FakeNetworkManager*>(context);
    if (self.silentPath_ == "*" || path == self.silentPath_) return 1;
    sd_bus_message* reply = nullptr;
    ::sd_bus_message_new_method_return(message, &reply);
    fill(reply, path);
    ::sd_bus_send(nullptr, reply, nullptr);
    ::sd_bus_message_unref(reply);
    return 1;
  }

  static void fillConnection(sd_bus_message* reply, const char* id, bool vpn, const char* device) {
    ::sd_bus_message_append(reply, "a{sv}", 5, "State", "u", 2U, "Id", "s", id, "Vpn", "b", vpn,
                            "Ip4Config", "o", "/", "Devices", "ao", 1, device);
  }
  static void fillDevice(sd_bus_message* reply, const char* name, const char* ipName) {
    ::sd_bus_message_append(reply, "a{sv}", 4, "StateReason", "(uu)", 100U, 0U, "Interface", "s",
                            name, "LldpNeighbors", "aa{sv}", 0, "IpInterface", "s", ipName);
  }
  static void fill(sd_bus_message* reply, std::string_view path) {
    if (path == "/org/freedesktop/NetworkManager") {
      ::sd_bus_message_append(reply, "a{sv}", 2, "Version", "s", "1.42.4", "ActiveConnections",
                              "ao", 5, "/vpn", "/one", "/again", "/modem", "/two");
    }
    if (path == "/vpn") fillConnection(reply, "Head office", true, "/device/one");
    if (path == "/one") fillConnection(reply, "Station bus", false, "/device/one");
    if (path == "/again") fillConnection(reply, "Second on it", false, "/device/one");
    if (path == "/modem") fillConnection(reply, "Mobile", false, "/device/modem");
    if (path == "/two") fillConnection(reply, "Process bus", false, "/device/two");
    if (path == "/device/one") fillDevice(reply, "test1", "test1");
    if (path == "/device/two") fillDevice(reply, "test2", "");
    if (path == "/device/modem") fillDevice(reply, "modem7", "modem7ip");
  }

  const std::string silentPath_;
  sd_bus* bus_ = nullptr;
  std::atomic<bool> stopped_ = false;
  std::thread thread_;
};

// The names of the stand-in's interfaces; how long they took is checked against `within`.
std::map<std::string, std::string> connectionNames(std::chrono::milliseconds within) {
  const auto begin = std::chrono::steady_clock::now();
  auto names = interfaceDisplayNames();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, within);
  std::erase_if(names, [](const auto& item) {  // Models of this machine's hardware.
    return !item.first.starts_with("test") && !item.first.starts_with("modem");
  });
  return names;
}

TEST_F(SystemBus, ConnectionNamesBelongToTheirDevices) {
  startBus();
  const FakeNetworkManager manager;
  EXPECT_THAT(connectionNames(kInterfaceNamesLimit),
              ElementsAre(Pair("modem7", "Mobile"), Pair("modem7ip", "Mobile"),
                          Pair("test1", "Station bus"), Pair("test2", "Process bus")));
}

TEST_F(SystemBus, ASilentDeviceHidesItsOwnNameAlone) {
  startBus();
  const FakeNetworkManager manager("/device/modem");
  EXPECT_THAT(connectionNames(kLimitWithSlack),
              ElementsAre(Pair("test1", "Station bus"), Pair("test2", "Process bus")));
}

TEST_F(SystemBus, AManagerThatNeverAnswersIsLeftBehindAtTheLimit) {
  startBus();
  const FakeNetworkManager manager("*");
  EXPECT_THAT(connectionNames(kLimitWithSlack), IsEmpty());
}

TEST_F(SystemBus, ABusThatNeverGreetsIsLeftBehindAtTheLimit) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  EXPECT_THAT(connectionNames(kLimitWithSlack), IsEmpty());
  ::close(listener);
}

TEST_F(SystemBus, AnAbsentManagerOrBusIsNeitherWaitedForNorStarted) {
  EXPECT_THAT(connectionNames(kInterfaceNamesLimit / 2), IsEmpty());
  startBus();
  EXPECT_THAT(connectionNames(kInterfaceNamesLimit / 2), IsEmpty());
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(fs::exists(startedMark()));
}

}  // namespace
}  // namespace tarnlink
