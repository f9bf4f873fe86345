// The pretty name is asked of systemd-hostnamed over the system D-Bus where that runs; the file
// that it keeps the name in is read where it does not.
#include "platform/host_name.h"

#include <limits.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <boost/locale/utf.hpp>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string_view>

namespace tarnlink {
namespace {

using Clock = std::chrono::steady_clock;
namespace utf = boost::locale::utf;

constexpr std::string_view kPrettyHostname = "PRETTY_HOSTNAME=";

struct BusClose {
  // Not flushing: nothing left in the queue is worth waiting for.
  void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
};
struct MessageUnref {
  void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};

bool isName(std::string_view text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at != end) {
    const auto point = utf::utf_traits<char>::decode(at, end);
    if (point == utf::illegal || point == utf::incomplete || point == 0) return false;
  }
  return !text.empty();
}

struct Answer {
  bool came = false;
  std::string text;
};

int onReply(sd_bus_message* reply, void* context, sd_bus_error*) {
  auto& answer = *static_cast<Answer*>(context);
  answer.came = true;
  const char* text = nullptr;
  if (::sd_bus_message_is_method_error(reply, nullptr) == 0 &&
      ::sd_bus_message_read(reply, "v", "s", &text) >= 0) {
    answer.text = text;
  }
  return 0;
}

// Asked without the library's blocking calls: they wait for the bus's greeting without a limit.
std::string askHostnamed(Clock::time_point deadline) {
  sd_bus* rawBus = nullptr;
  if (::sd_bus_open_system(&rawBus) < 0) return {};
  const std::unique_ptr<sd_bus, BusClose> bus(rawBus);
  sd_bus_message* rawCall = nullptr;
  if (::sd_bus_message_new_method_call(rawBus, &rawCall, "org.freedesktop.hostname1",
                                       "/org/freedesktop/hostname1",
                                       "org.freedesktop.DBus.Properties", "Get") < 0) {
    return {};
  }
  const std::unique_ptr<sd_bus_message, MessageUnref> call(rawCall);
  // Started for this question alone, it would only read the file that is read next.
  ::sd_bus_message_set_auto_start(rawCall, 0);
  Answer answer;
  if (::sd_bus_message_append(rawCall, "ss", "org.freedesktop.hostname1", "PrettyHostname") < 0 ||
      ::sd_bus_call_async(rawBus, nullptr, rawCall, &onReply, &answer, UINT64_MAX) < 0) {
    return {};
  }
  while (!answer.came) {
    const int processed = ::sd_bus_process(rawBus, nullptr);
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    if (processed < 0 || left.count() <= 0) break;
    if (processed > 0) continue;
    if (::sd_bus_wait(rawBus, static_cast<std::uint64_t>(left.count())) < 0) break;
  }
  return answer.text;
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
  const auto deadline = Clock::now() + limit;
  if (auto name = askHostnamed(deadline); isName(name)) return name;
  if (auto name = readMachineInfo(machineInfo); isName(name)) return name;
  if (auto name = kernelName(); isName(name)) return name;
  return std::nullopt;
}

}  // namespace tarnlink
