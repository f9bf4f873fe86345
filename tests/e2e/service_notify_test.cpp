// What a service manager hears from the daemon.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/daemon.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::test {
namespace {

/// The manager's end of NOTIFY_SOCKET, for programs that are started while it exists.
class ServiceManager {
 public:
  ServiceManager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const std::string name = "@tarnlink-test-" + std::to_string(::getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    address.sun_path[0] = '\0';  // The "@" stands for the abstract namespace.
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), length), 0);
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  ~ServiceManager() {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(socket_);
  }

  /// The next notification; empty when none comes in time.
  std::string next(int patience /* ms */) {
    pollfd ready{socket_, POLLIN, 0};
    if (::poll(&ready, 1, patience) <= 0) return "";
    char text[1024];
    const ssize_t length = ::recv(socket_, text, sizeof text, 0);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
  }

 private:
  int socket_;
};

constexpr int kPatience = 5'000;  // Milliseconds.

TEST(ServiceNotifyTest, ReadyOnceTheSocketListensAndStoppingBeforeTheEnd) {
  NetworkNamespace::enter();
  ServiceManager manager;
  Daemon daemon({});
  EXPECT_EQ(manager.next(kPatience), "READY=1\nSTATUS=Listening on port 8765");
  int exitCode = -1;
  const auto second = outputOf({"--preferences", daemon.preferences(), "--no-advertise"}, exitCode);
  EXPECT_EQ(exitCode, 1) << "the port was not taken at READY: " << second;
  EXPECT_EQ(manager.next(0), "") << "a start that failed must not claim to be ready";
  daemon.signal(SIGTERM);
  EXPECT_EQ(manager.next(kPatience), "STOPPING=1");
  EXPECT_EQ(daemon.waitForExit(), 0);
}

}  // namespace
}  // namespace tarnlink::test
