#include "platform/host_name.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/bus_service.h"
#include "tests/support/dns_sd_host.h"

namespace tarnlink {
namespace {

constexpr const char* kNoAnswer = "never answers";

TEST(HostName, IsTheFirstUsableOfItsSources) {
  char kernelName[256] = {};
  ASSERT_EQ(::gethostname(kernelName, sizeof kernelName - 1), 0);
  const struct {
    const char* situation;
    const char *hostnamed, *machineInfo, *name;
  } cases[] = {
      {"service before file", "Büro Süd", "PRETTY_HOSTNAME=File\n", "Büro Süd"},
      {"service has none", "", "CHASSIS=vm\nPRETTY_HOSTNAME=File\n", "File"},
      {"service is silent", kNoAnswer, "PRETTY_HOSTNAME=File\n", "File"},
      {"double quotes", "", R"(PRETTY_HOSTNAME="A \"B\" \$C")", "A \"B\" $C"},
      {"single quotes", "", R"(PRETTY_HOSTNAME='A "B" \')", R"(A "B" \)"},
      {"last one counts", "", "PRETTY_HOSTNAME=One\nPRETTY_HOSTNAME=Two\n", "Two"},
      {"empty in the file", "", "PRETTY_HOSTNAME=\"\"\n", kernelName},
      {"not UTF-8", "", "PRETTY_HOSTNAME=\xC3(\n", kernelName},
      {"truncated UTF-8", "", "PRETTY_HOSTNAME=a\xC3\n", kernelName},
      {"neither", "", "", kernelName},
  };
  test::DnsSdHost host;
  host.use();
  host.startBus();
  const auto file = std::filesystem::path(host.busSocket()).replace_filename("machine-info");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    std::ofstream(file) << c.machineInfo << std::flush;
    const test::BusService hostnamed(
        "org.freedesktop.hostname1", "GetAll", [name = std::string(c.hostnamed)](auto* call) {
          if (name == kNoAnswer) return;
          ::sd_bus_reply_method_return(call, "a{sv}", 1, "PrettyHostname", "s", name.c_str());
        });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(userVisibleHostName(std::chrono::milliseconds(100), file), c.name);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
  }
}

}  // namespace
}  // namespace tarnlink
