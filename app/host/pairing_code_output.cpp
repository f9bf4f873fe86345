#include "app/host/pairing_code_output.h"

#include <filesystem>
#include <iostream>
#include <string_view>
#include <system_error>

#include "platform/preference_store.h"
#include "server/pairing_code.h"

namespace tarnlink {
namespace {

constexpr int kExitNoCode = 1;

// There while the service runs, and everybody may see it.
constexpr const char* kServiceGroup = "/sys/fs/cgroup/system.slice/tarnlinkd.service";

constexpr const char* kServiceCommand =
    "The packaged service's code is printed by:\n"
    "  sudo systemd-run --quiet --pipe --wait -p DynamicUser=yes -p User=tarnlinkd \\\n"
    "    -p StateDirectory=tarnlink -p StateDirectoryMode=0700 \\\n"
    "    tarnlinkd --show-pairing-code --preferences /var/lib/tarnlink/preferences.json\n";

void logToErrors(std::string_view line) {
  std::cerr << line << std::endl;
}

}  // namespace

std::optional<std::string> storedPairingCode(const std::filesystem::path& preferences,
                                             const std::function<void(std::string_view)>& log) {
  const auto code = pairingCode(*makePreferenceStore(preferences, log));
  // As another program finds it: the store that made it also knows a code that it could not store.
  const auto stored = makePreferenceStore(preferences, log)->read(kPairingCodeKey);
  return stored == code ? stored : std::nullopt;
}

int printPairingCode(const DaemonOptions& options) {
  std::error_code notThere;
  if (!options.arePreferencesGiven && std::filesystem::exists(kServiceGroup, notThere)) {
    std::cerr << "tarnlinkd: the service tarnlinkd runs, and its pairing code is not this user's\n"
              << kServiceCommand << "This user's own is printed with --preferences "
              << options.preferences.string() << std::endl;
    return kExitNoCode;
  }
  const auto code = storedPairingCode(options.preferences, logToErrors);
  if (!code) {
    std::cerr << "tarnlinkd: no pairing code in " << options.preferences.string()
              << ", where none could be stored\n"
              << kServiceCommand << std::flush;
    return kExitNoCode;
  }
  std::cout << *code << std::endl;
  return 0;
}

}  // namespace tarnlink
