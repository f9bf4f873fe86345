// The real daemon on a veth pair, real clients, real frames.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "protocol/bridge_time.h"
#include "tests/e2e/bridge_end_to_end.h"
#include "tests/support/frame_recorder.h"

namespace tarnlink::test {
namespace {

TEST_F(BridgeEndToEndTest, GooseFromTheWireReachesTheClientWithTheKernelsTime) {
  startDaemon();
  Client client(code);
  client.say({{"cmd", "subscribe_goose"}, {"goCBRefFilter", "gcb01"}});
  EXPECT_EQ(client.next("bridge_status")["isCapturing"], true);
  FrameRecorder recorder(kBus, "vlan 100");
  send({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x88, 0xB8, 0xFF});
  send(gooseFrame(9, 100));
  const Json message = client.next("goose_message")["message"];
  EXPECT_EQ(message["sqNum"], 9);
  EXPECT_EQ(message["vlanId"], 100);
  EXPECT_EQ(message["srcMac"], "02:00:00:00:00:09");
  EXPECT_EQ(message["values"], Json::parse(R"([{"runtimeType":"int32","value":-129}])"));
  const auto receivedAt = parseBridgeIso8601(message["receivedAt"].get<std::string>());
  const std::chrono::duration<double> stamped = recorder.frames(1).at(0).time;
  EXPECT_NEAR(goosestack::unixSeconds(receivedAt.value()), stamped.count(), 0.001);
}

TEST_F(BridgeEndToEndTest, NoCodeThatAClientSendsIsEverInTheLog) {
  startDaemon();
  const std::string wrong = code == "135790" ? "135791" : "135790";
  Client client(code);
  Client guesser("");
  for (const Json& token : {Json(wrong), Json(std::stoi(wrong)), Json(code + "x")}) {
    guesser.say({{"cmd", "auth"}, {"token", token}});
    EXPECT_EQ(guesser.next("auth_result")["ok"], false);
  }
  guesser.say({{"cmd", "subscribe_goose"}, {"token", code}});
  EXPECT_EQ(guesser.next("error")["code"], 7);
  client.say({{"cmd", "subscribe_goose"}, {"token", code}});
  client.next("bridge_status");
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->waitForExit(2s), 0);
  EXPECT_EQ(daemon->log().back(), "[BridgeServer] Stopped");
  for (const auto& line : daemon->log()) {
    EXPECT_EQ(line.find(code), std::string::npos) << line;
    EXPECT_EQ(line.find(wrong), std::string::npos) << line;
  }
}

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
  std::string next(std::chrono::milliseconds patience) {
    pollfd ready{socket_, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(patience.count())) <= 0) return "";
    std::string text(1024, '\0');
    text.resize(static_cast<std::size_t>(::recv(socket_, text.data(), text.size(), 0)));
    return text;
  }

 private:
  int socket_;
};

TEST_F(BridgeEndToEndTest, AServiceManagerHearsOfTheListeningSocketAndOfTheStop) {
  ServiceManager manager;
  daemon.emplace(std::vector<std::string>());
  EXPECT_EQ(manager.next(5s), "READY=1\nSTATUS=Listening on port 8765");
  int exitCode = -1;
  outputOf({"--preferences", daemon->preferences(), "--no-advertise"}, exitCode);
  EXPECT_EQ(exitCode, 1) << "the port was not taken at READY";
  EXPECT_EQ(manager.next(0s), "") << "a start that failed must not claim to be ready";
  daemon->signal(SIGTERM);
  EXPECT_EQ(manager.next(5s), "STOPPING=1");
}

}  // namespace
}  // namespace tarnlink::test
