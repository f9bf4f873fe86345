#include "platform/process_capabilities.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/capability.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace tarnlink {
namespace {

constexpr std::uint64_t bit(int capability) {
  return std::uint64_t{1} << capability;
}
constexpr std::uint64_t kRaw = bit(CAP_NET_RAW);
constexpr std::uint64_t kAdmin = bit(CAP_NET_ADMIN);

// A process with the capabilities `start` of a user namespace of its own (as its root, or as
// nobody). Gives up what keepOnlyCaptureCapabilities() gives up, then writes /proc/self/status
// twice: its own, and that of a program that it becomes.
[[noreturn]] void runChild(bool asRoot, std::string_view start, int output) {
  const auto user = std::to_string(::getuid());
  if (::unshare(CLONE_NEWUSER) != 0) ::_exit(2);
  if (asRoot) std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
  const cap_t set = ::cap_from_text(std::string(start).c_str());
  if (set == nullptr || ::cap_set_proc(set) != 0) ::_exit(3);
  if (!keepOnlyCaptureCapabilities()) ::_exit(4);
  ::dup2(output, STDOUT_FILENO);
  std::ostringstream own;
  own << std::ifstream("/proc/self/status").rdbuf() << "canCap: " << hasCaptureCapability() << "\n";
  const auto text = own.str();
  if (::write(STDOUT_FILENO, text.data(), text.size()) < 0) ::_exit(5);
  ::execl("/bin/cat", "cat", "/proc/self/status", nullptr);
  ::_exit(6);
}

/// The first words of each line with the numbers behind them; the second time with a "+".
std::map<std::string, std::uint64_t> outcomeOf(bool asRoot, std::string_view start) {
  int pipe[2];
  if (::pipe(pipe) != 0) return {};
  const pid_t child = ::fork();
  if (child == 0) runChild(asRoot, start, pipe[1]);
  ::close(pipe[1]);
  std::map<std::string, std::uint64_t> found;
  FILE* lines = ::fdopen(pipe[0], "r");
  char name[64];
  unsigned long long bits = 0;
  for (char line[512]; std::fgets(line, sizeof line, lines) != nullptr;) {
    if (std::sscanf(line, "%6[a-zA-Z]: %llx", name, &bits) != 2) continue;
    if (!found.emplace(name, bits).second) found[std::string(name) + "+"] = bits;
  }
  std::fclose(lines);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0) << "the child ended with " << WEXITSTATUS(status);
  return found;
}

TEST(ProcessCapabilities, OnlyThoseForCapturingAndLinksRemain) {
  const struct {
    const char* situation;
    bool asRoot;
    const char* start;
    std::uint64_t own, inheritable, childEffective;
    bool bounded;
  } cases[] = {
      {"sudo", true, "=ep", kRaw | kAdmin, kAdmin, kRaw | kAdmin, true},
      {"both on the file", false, "cap_net_raw,cap_net_admin=ep", kRaw | kAdmin, kAdmin, kAdmin,
       false},
      {"permitted, not effective", false, "cap_net_raw,cap_net_admin,cap_sys_admin=p",
       kRaw | kAdmin, kAdmin, kAdmin, false},
      {"capture alone", false, "cap_net_raw=ep", kRaw, 0, 0, false},
      {"inheritable ones of the parent", false, "cap_net_raw,cap_sys_admin=eip", kRaw, 0, 0, false},
      {"nothing", false, "=", 0, 0, 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    auto outcome = outcomeOf(c.asRoot, c.start);
    EXPECT_EQ(outcome["CapPrm"], c.own);
    EXPECT_EQ(outcome["CapEff"], c.own);
    EXPECT_EQ(outcome["CapInh"], c.inheritable);
    EXPECT_EQ(outcome["CapAmb"], c.inheritable);
    EXPECT_EQ(outcome["CapBnd"] == (kRaw | kAdmin), c.bounded);
    EXPECT_EQ(outcome["CapEff+"], c.childEffective);
    EXPECT_EQ(outcome["canCap"] != 0, (c.own & kRaw) != 0);
  }
}

}  // namespace
}  // namespace tarnlink
