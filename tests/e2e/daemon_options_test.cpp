// The daemon's own options, on the daemon itself: each that hardens it shows its effect.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/child_process.h"
#include "tests/e2e/bridge_end_to_end.h"
#include "tests/support/program.h"

namespace tarnlink::test {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

using DaemonOptionsTest = BridgeEndToEndTest;

/// The status of the answer to an upgrade; 0 when nobody takes the connection.
int upgradeStatus(const std::string& address, const std::string& fields) {
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(8765);
  ::inet_pton(AF_INET6, (address == "::1" ? address : "::ffff:" + address).c_str(), &to.sin6_addr);
  const int socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string answer;
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) {
    const std::string request =
        "GET / HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13"
        "\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n" +
        fields + "\r\n\r\n";
    ::send(socket, request.data(), request.size(), 0);
    answer.resize(256);
    answer.resize(static_cast<std::size_t>(
        std::max<ssize_t>(::recv(socket, answer.data(), answer.size(), 0), 0)));
  }
  ::close(socket);
  return answer.starts_with("HTTP/1.1 ") ? std::stoi(answer.substr(9)) : 0;
}

TEST_F(DaemonOptionsTest, EachDecidesWhoGetsIn) {
  const std::string host = "Host: 127.0.0.1:8765";
  const std::string page = host + "\r\nOrigin: https://ok.example";
  const std::string evil = host + "\r\nOrigin: https://evil.example";
  const std::string named = "Host: bridge.example\r\nOrigin: https://ok.example";
  const std::string local = "127.0.0.1";
  struct Attempt {
    std::string address, fields;
    int status;
  };
  const struct {
    std::vector<std::string> options;
    bool hasPairedClient;
    std::vector<Attempt> attempts;
  } cases[] = {
      {{}, true, {{local, evil, 101}, {local, named, 101}, {"127.0.0.2", host, 101}}},
      {{"--allow-origin", "https://ok.example"},
       false,
       {{local, page, 101}, {local, evil, 403}, {local, named, 403}, {local, host, 101}}},
      {{"--allow-host", "bridge.example"},
       false,
       {{local, named, 101}, {local, "Host: other.example\r\nOrigin: https://ok.example", 403}}},
      {{"--max-clients", "1"}, false, {{local, host, 101}}},
      {{"--max-clients", "1"}, true, {{local, host, 503}}},
      {{"--bind", "127.0.0.2", "::1"},
       false,
       {{"127.0.0.2", host, 101}, {"::1", host, 101}, {local, host, 0}}},
  };
  for (const auto& [options, hasPairedClient, attempts] : cases) {
    SCOPED_TRACE(::testing::PrintToString(options));
    startDaemon(options);
    std::optional<Client> client;
    if (hasPairedClient) client.emplace(code);
    for (const auto& [address, fields, status] : attempts) {
      EXPECT_EQ(upgradeStatus(address, fields), status) << address << ": " << fields;
    }
  }
}

TEST_F(DaemonOptionsTest, WrongCodesWaitWhereTheyAreDelayed) {
  for (const bool isDelayed : {false, true}) {
    startDaemon(isDelayed ? std::vector<std::string>{"--auth-delay"} : std::vector<std::string>{});
    Client guesser("");
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 11; ++i) guesser.say({{"cmd", "auth"}, {"token", "wrong"}});
    for (int i = 0; i < 11; ++i) EXPECT_EQ(guesser.next("auth_result")["ok"], false);
    EXPECT_EQ(std::chrono::steady_clock::now() - begin > 700ms, isDelayed);
  }
}

TEST_F(DaemonOptionsTest, ACodeThatNoBridgeKnowsIsNotPrinted) {
  NetworkNamespace::enter();
  const auto folder = std::filesystem::path(::testing::TempDir()) /
                      ("daemon_options_test." + std::to_string(::getpid()));
  std::filesystem::create_directory(folder);
  const std::string own = folder / "tarnlink" / "preferences.json";
  const std::string tarnlinkd = std::string(TARNLINKD) + " --show-pairing-code";
  const std::string withService =
      "mount -t tmpfs none /sys/fs/cgroup && "
      "mkdir -p /sys/fs/cgroup/system.slice/tarnlinkd.service && ";
  const struct {
    std::string line;
    int exitCode;
    std::string says;
  } cases[] = {
      {tarnlinkd, 0, ""},
      {tarnlinkd + " --preferences /proc/nowhere/preferences.json", 1,
       "no pairing code in /proc/nowhere/preferences.json"},
      {withService + tarnlinkd, 1, "the service tarnlinkd runs"},
      {withService + tarnlinkd + " --preferences " + own, 0, ""},
  };
  for (const auto& [line, exitCode, says] : cases) {
    SCOPED_TRACE(line);
    Program program({"unshare", "-m", "sh", "-c", line}, folder / "output",
                    {{"XDG_CONFIG_HOME", folder}});
    EXPECT_EQ(program.wait(), exitCode);
    if (exitCode == 0) {
      EXPECT_THAT(program.output(), ::testing::MatchesRegex("[0-9]{6}\n"));
    } else {
      EXPECT_THAT(program.output(), AllOf(HasSubstr(says), HasSubstr("systemd-run"),
                                          Not(ContainsRegex("(^|\n)[0-9]{6}\n"))));
    }
  }
  std::filesystem::remove_all(folder);
}

TEST_F(DaemonOptionsTest, TheCommandLineAnswersPlainly) {
  startDaemon();
  const std::string busy = std::make_error_code(std::errc::address_in_use).message();
  const struct {
    std::vector<std::string> arguments;
    int exitCode;
    std::string text;
  } cases[] = {
      {{"--version"}, 0, "tarnlinkd "},
      {{"--help"}, 0, "--low-latency"},
      {{"--port", "0"}, 1, "[KorvelTarnlink] Start failed: Invalid bridge port: 0\n"},
      {{"--port", "8765"},
       1,
       "[KorvelTarnlink] Start failed: " + busy +
           "\n[KorvelTarnlink] Another program, perhaps another bridge, listens on port 8765: "},
      {{"--tls-cert", "/no/such", "--tls-key", "/no/such"},
       1,
       "[KorvelTarnlink] Start failed: /no/such: No such file"},
      {{"--bind", "192.0.2.1"}, 1, "\n[KorvelTarnlink] --bind takes addresses of this computer"},
      {{"--port", "0", "--interface", "nosuch0"}, 1, "[KorvelTarnlink] No interface nosuch0"},
      {{"--preferences", "/proc/nowhere/p.json", "--port", "0"}, 1, "Nobody can pair: "},
      {{"--port", "0", "--interface", "bus0"}, 1, "Start failed: Invalid bridge port: 0\n"},
      {{"--port", "70000"}, 2, "70000"},
      {{"--tls-cert", "a.pem"}, 2, "--tls-key"},
      {{"--allow-origin", "example.org"}, 2, "'example.org' is no origin"},
      {{"--allow-host", "bridge:8765"}, 2, "'bridge:8765' is no host name"},
      {{"--bind", "localhost"}, 2, "'localhost' is no IPv4 or IPv6 address"},
      {{"--max-clients", "-1"}, 2, "--max-clients"},
      {{"--no-such-option"}, 2, "no-such-option"},
  };
  for (const auto& c : cases) {
    int exitCode = -1;
    auto arguments = c.arguments;
    if (arguments.front() != "--preferences") {
      arguments.insert(arguments.end(), {"--preferences", daemon->preferences()});
    }
    const std::string output = outputOf(arguments, exitCode);
    EXPECT_EQ(exitCode, c.exitCode) << output;
    EXPECT_NE(output.find(c.text), std::string::npos) << output;
    const std::string remedy = "listens on port";
    EXPECT_EQ(output.find(remedy) == output.npos, c.text.find(remedy) == c.text.npos) << output;
  }
}

TEST_F(DaemonOptionsTest, OnlyTheNetworkPrivilegesAreKeptAndAMissingOneIsTold) {
  startDaemon();
  std::ifstream status("/proc/" + std::to_string(daemon->pid()) + "/status");
  std::uint64_t effective = ~0ULL;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("CapEff:", 0) == 0) effective = std::stoull(line.substr(7), nullptr, 16);
  }
  constexpr std::uint64_t kNetAdminAndRaw = 1ULL << 12 | 1ULL << 13;
  EXPECT_EQ(effective, kNetAdminAndRaw);
  const auto tellsMissing = [this](const std::string& bound) {
    const auto program = "/proc/" + std::to_string(daemon->pid()) + "/exe";
    const auto outcome =
        makeProcessRunner()->run({"/usr/bin/setpriv", "--bounding-set", bound, program,
                                  "--preferences", daemon->preferences()});
    return outcome.value().out.find("No CAP_NET_RAW") != std::string::npos;
  };
  EXPECT_TRUE(tellsMissing("-net_raw"));
  EXPECT_FALSE(tellsMissing("-chown"));
}

}  // namespace
}  // namespace tarnlink::test
