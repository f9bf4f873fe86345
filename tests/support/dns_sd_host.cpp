#include "tests/support/dns_sd_host.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tarnlink::test {
namespace {

// The daemon's folder and its user are fixed when it is compiled; here, where it may be without
// root, it sees its own /run, and a user database in which that user is whoever runs the test.
constexpr const char* kDaemonScript =
    "mount -t tmpfs none /run && echo avahi:x:0:0::/: >/run/passwd && echo avahi:x:0: >/run/group"
    " && mount --bind /run/passwd /etc/passwd && mount --bind /run/group /etc/group"
    " && exec /usr/sbin/avahi-daemon -f \"$0\" --no-drop-root --no-chroot --no-rlimits";

std::filesystem::path busOfThisProcess() {
  return std::filesystem::temp_directory_path() / ("dns-sd-bus-" + std::to_string(::getpid()));
}

void shell(const std::string& command) {
  // Debian keeps ip in /sbin, which is not on the path of ordinary users.
  if (std::system(("PATH=$PATH:/usr/sbin:/sbin; " + command).c_str()) != 0) {
    throw std::runtime_error(command + " failed");
  }
}

}  // namespace

DnsSdHost::DnsSdHost() {
  std::string pattern = std::filesystem::temp_directory_path() / "dns-sd-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  folder_ = pattern;
}

DnsSdHost::~DnsSdHost() {
  daemon_.reset();
  bus_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
  std::filesystem::remove(busOfThisProcess(), ignored);
}

void DnsSdHost::startBus() {
  std::ofstream(folder_ / "bus.conf")
      << "<busconfig><type>system</type><listen>unix:path=" << busSocket()
      << "</listen><policy context=\"default\"><allow user=\"*\"/><allow send_destination=\"*\"/>"
         "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>";
  bus_ = run({"dbus-daemon", "--nofork", "--print-address", "--config-file", folder_ / "bus.conf"});
  if (!bus_->waitForOutput("unix:path=")) throw std::runtime_error("dbus-daemon did not start");
}

void DnsSdHost::startDaemon(const std::string& hostName) {
  std::ofstream(folder_ / "avahi.conf")
      << "[server]\nhost-name=" << hostName
      << "\ndeny-interfaces=lo\n[wide-area]\nenable-wide-area=no\n"
         "[publish]\npublish-hinfo=no\npublish-workstation=no\n";
  daemon_ = run({"unshare", "--mount", "sh", "-c", kDaemonScript, folder_ / "avahi.conf"});
  if (!daemon_->waitForOutput("Server startup complete")) {
    throw std::runtime_error("avahi-daemon did not start: " + daemon_->output());
  }
}

std::unique_ptr<Program> DnsSdHost::run(std::vector<std::string> argv) const {
  argv.insert(argv.begin(), prefix_.begin(), prefix_.end());
  return std::make_unique<Program>(
      std::move(argv),
      std::map<std::string, std::string>{{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + busSocket()}});
}

std::string DnsSdHost::browse() const {
  const auto client = run({"avahi-browse", "-rptk", "_tarnlink._tcp"});
  if (client->wait() != 0) throw std::runtime_error("avahi-browse: " + client->output());
  std::string resolved;
  std::istringstream lines(client->output());
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("=;")) resolved += line + '\n';
  }
  return resolved;
}

// libdbus keeps the first address that it sees.
void DnsSdHost::use() const {
  std::filesystem::remove(busOfThisProcess());
  std::filesystem::create_symlink(busSocket(), busOfThisProcess());
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + busOfThisProcess().string()).c_str(), 1);
}

DistantDnsSdHost::DistantDnsSdHost() {
  network_ = run({"unshare", "--net", "sh", "-c", "echo up; exec sleep 600"});
  if (!network_->waitForOutput("up")) throw std::runtime_error("no network namespace");
  const auto pid = std::to_string(network_->pid());
  const auto there = "nsenter --net=/proc/" + pid + "/ns/net ip ";
  shell("ip link add lan0 type veth peer name lan1 netns " + pid);
  shell("ip address add 10.77.0.1/24 dev lan0 && ip link set lan0 up");
  shell(there + "address add 10.77.0.2/24 dev lan1 && " + there + "link set lan1 up");
  prefix_ = {"nsenter", "--net=/proc/" + pid + "/ns/net"};
}

// With a namespace the kernel removes its links, but some time later.
DistantDnsSdHost::~DistantDnsSdHost() {
  try {
    shell("ip link delete lan0");
  } catch (const std::runtime_error&) {
  }
}

}  // namespace tarnlink::test
