// The pretty name is asked of systemd-hostnamed over the system D-Bus where that runs; the file
// that it keeps the name in is read where it does not.
#include "platform/host_name.h"

#include <limits.h>
#include <unistd.h>

#include <array>
#include <boost/locale/utf.hpp>
#include <fstream>
#include <string_view>

#include "platform/system_bus_linux.h"

namespace tarnlink {
namespace {

namespace utf = boost::locale::utf;

constexpr std::string_view kPrettyHostname = "PRETTY_HOSTNAME=";

bool isName(std::string_view text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at != end) {
    const auto point = utf::utf_traits<char>::decode(at, end);
    if (point == utf::illegal || point == utf::incomplete || point == 0) return false;
  }
  return !text.empty();
}

std::string askHostnamed(std::chrono::steady_clock::time_point deadline) {
  constexpr const char* kHostname = "org.freedesktop.hostname1";
  return SystemBus(deadline)
      .getAll(kHostname, {"/org/freedesktop/hostname1"}, kHostname)
      .front()
      .get<std::string>("PrettyHostname");
}

// os-release(5): a value may be quoted as in a shell, without expansion.
std::string unquoted(std::string_view value) {
  std::string text;
  char quote = '\0';
  for (std::size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (quote == '\0' && (c == '"' || c == '\'')) {
      quote = c;
    } else if (quote != '\0' && c == quote) {
      quote = '\0';
    } else if (c == '\\' && quote != '\'' && i + 1 < value.size()) {
      text += value[++i];
    } else {
      text += c;
    }
  }
  return text;
}

std::string readMachineInfo(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::string name;
  for (std::string line; std::getline(file, line);) {
    // The last of several assignments counts, as in a shell.
    if (line.starts_with(kPrettyHostname)) {
      name = unquoted(std::string_view(line).substr(kPrettyHostname.size()));
    }
  }
  return name;
}

std::string kernelName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return {};
  const std::string text = name.data();
  return text == "(none)" ? "" : text;  // The kernel's word for no name.
}

}  // namespace

std::optional<std::string> userVisibleHostName(std::chrono::milliseconds limit,
                                               const std::filesystem::path& machineInfo) {
  if (auto name = askHostnamed(std::chrono::steady_clock::now() + limit); isName(name)) return name;
  if (auto name = readMachineInfo(machineInfo); isName(name)) return name;
  if (auto name = kernelName(); isName(name)) return name;
  return std::nullopt;
}

}  // namespace tarnlink
