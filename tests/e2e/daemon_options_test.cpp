// The daemon's own options, on the daemon itself: each that hardens it shows its effect.
#include <gmock/gmock.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/e2e/bridge_end_to_end.h"

namespace tarnlink::test {
namespace {

using ::testing::HasSubstr;
using DaemonOptionsTest = BridgeEndToEndTest;

/// The status of the answer to an upgrade; 0 when nobody takes the connection.
int upgradeStatus(const std::string& address, const std::string& fields) {
  boost::asio::ip::tcp::iostream stream(address, "8765");
  stream << "GET / HTTP/1.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n"
         << fields << "\r\n\r\n"
         << std::flush;
  std::string version;
  int status = 0;
  stream >> version >> status;
  return status;
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
    std::vector<Attempt> attempts;  // While a client is paired.
  } cases[] = {
      {{}, {{local, evil, 101}, {local, named, 101}, {"127.0.0.2", host, 101}}},
      {{"--allow-origin", "https://ok.example"},
       {{local, page, 101}, {local, evil, 403}, {local, named, 403}, {local, host, 101}}},
      {{"--allow-host", "bridge.example"},
       {{local, named, 101}, {local, "Host: other.example\r\nOrigin: https://ok.example", 403}}},
      {{"--max-clients", "1"}, {{local, host, 503}}},
      {{"--max-clients", "2"}, {{local, host, 101}}},
      {{"--bind", local, "::1"}, {{local, host, 101}, {"::1", host, 101}, {"127.0.0.2", host, 0}}},
  };
  for (const auto& [options, attempts] : cases) {
    SCOPED_TRACE(::testing::PrintToString(options));
    startDaemon(options);
    Client client(code);
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
  startDaemon();
  const std::string folder = daemon->preferences().parent_path();
  const std::string show = std::string(TARNLINKD) + " --show-pairing-code";
  const std::string withService =
      "mount -t tmpfs none /sys/fs/cgroup && "
      "mkdir -p /sys/fs/cgroup/system.slice/tarnlinkd.service && ";
  const struct {
    std::string line, says;  // Nothing: the code.
  } cases[] = {
      {show, ""},
      {show + " --preferences /proc/nowhere/p.json", "no pairing code in /proc/nowhere/p.json"},
      {withService + show, "the service tarnlinkd runs"},
      {withService + show + " --preferences " + folder + "/tarnlink/preferences.json", ""},
  };
  for (const auto& [line, says] : cases) {
    SCOPED_TRACE(line);
    Program program({"unshare", "-m", "sh", "-c", line}, {{"XDG_CONFIG_HOME", folder}});
    EXPECT_EQ(program.wait(), says.empty() ? 0 : 1);
    const std::string digits = "[0-9]{6}\n";
    if (says.empty()) {
      EXPECT_THAT(program.output(), ::testing::MatchesRegex(digits));
    } else {
      EXPECT_THAT(program.output(), AllOf(HasSubstr(says), HasSubstr("systemd-run"),
                                          Not(::testing::ContainsRegex("(^|\n)" + digits))));
    }
  }
}

TEST_F(DaemonOptionsTest, TheCommandLineAnswersPlainly) {
  startDaemon();
  const struct {
    std::vector<std::string> arguments;
    int exitCode;
    std::string text;
  } cases[] = {
      {{"--version"}, 0, "tarnlinkd "},
      {{"--help"}, 0, "--low-latency"},
      {{"--port", "0"}, 1, "[KorvelTarnlink] Start failed: Invalid bridge port: 0\n"},
      {{"--port", "8765"}, 1, "Another program, perhaps another bridge, listens on port 8765: "},
      {{"--tls-cert", "/no/such", "--tls-key", "/no/such"}, 1, "failed: /no/such: No such file"},
      {{"--bind", "192.0.2.1"}, 1, "\n[KorvelTarnlink] --bind takes addresses of this computer"},
      {{"--port", "0", "--interface", "nosuch0"}, 1, "[KorvelTarnlink] No interface nosuch0"},
      {{"--port", "70000"}, 2, "70000"},
      {{"--tls-cert", "a.pem"}, 2, "--tls-key"},
      {{"--allow-origin", "example.org"}, 2, "'example.org' is no origin"},
      {{"--allow-host", "bridge:8765"}, 2, "'bridge:8765' is no host name"},
      {{"--bind", "localhost"}, 2, "'localhost' is no IPv4 or IPv6 address"},
      {{"--max-clients", "-1"}, 2, "--max-clients"},
  };
  for (auto [arguments, wanted, text] : cases) {
    int exitCode = -1;
    arguments.insert(arguments.end(), {"--preferences", daemon->preferences()});
    EXPECT_THAT(outputOf(arguments, exitCode), HasSubstr(text));
    EXPECT_EQ(exitCode, wanted) << text;
  }
  int exitCode = -1;
  EXPECT_THAT(outputOf({"--preferences", "/proc/nowhere/p.json", "--port", "0"}, exitCode),
              HasSubstr("Nobody can pair: "));
}

TEST_F(DaemonOptionsTest, OnlyTheNetworkPrivilegesAreKept) {
  startDaemon();
  std::ifstream status("/proc/" + std::to_string(daemon->pid()) + "/status");
  std::string all(std::istreambuf_iterator<char>(status), {});
  EXPECT_THAT(all, HasSubstr("CapEff:\t0000000000003000\n")) << "CAP_NET_ADMIN and CAP_NET_RAW";
}

}  // namespace
}  // namespace tarnlink::test
