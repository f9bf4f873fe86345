#include "platform/host_name.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>
#include <utility>

#include "tests/support/dns_sd_host.h"

namespace tarnlink {
namespace {

constexpr const char* kNoAnswer = "never answers";

// systemd-hostnamed on the test's bus, which knows one pretty name.
class FakeHostnamed {
 public:
  explicit FakeHostnamed(std::string prettyName) : prettyName_(std::move(prettyName)) {
    EXPECT_GE(::sd_bus_open_system(&bus_), 0);
    EXPECT_GE(::sd_bus_add_filter(bus_, nullptr, &onMessage, this), 0);
    EXPECT_GE(::sd_bus_request_name(bus_, "org.freedesktop.hostname1", 0), 0);
    thread_ = std::thread([this] {
      while (!stopped_ && ::sd_bus_process(bus_, nullptr) >= 0) ::sd_bus_wait(bus_, 10'000);
    });
  }
  ~FakeHostnamed() {
    stopped_ = true;
    thread_.join();
    ::sd_bus_flush_close_unref(bus_);
  }

 private:
  static int onMessage(sd_bus_message* message, void* context, sd_bus_error*) {
    if (::sd_bus_message_is_method_call(message, nullptr, "Get") <= 0) return 0;
    const auto& name = static_cast<FakeHostnamed*>(context)->prettyName_;
    if (name != kNoAnswer) ::sd_bus_reply_method_return(message, "v", "s", name.c_str());
    return 1;
  }

  const std::string prettyName_;
  sd_bus* bus_ = nullptr;
  std::atomic<bool> stopped_ = false;
  std::thread thread_;
};

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
    const FakeHostnamed hostnamed(c.hostnamed);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(userVisibleHostName(std::chrono::milliseconds(100), file), c.name);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
  }
}

}  // namespace
}  // namespace tarnlink
