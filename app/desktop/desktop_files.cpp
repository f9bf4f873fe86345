#include "app/desktop/desktop_files.h"

#include <unistd.h>

#include <QStandardPaths>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "app/host/pairing_code_output.h"
#include "platform/preference_store.h"

namespace tarnlink {
namespace fs = std::filesystem;

CapabilityAccessFiles findBridgeFiles(const fs::path& ownFolder) {
  const auto installed = ownFolder.parent_path() / "libexec" / "tarnlink";
  std::error_code ignored;
  const auto folder = fs::exists(installed / "tarnlinkd", ignored) ? installed : ownFolder;
  CapabilityAccessFiles files{folder / "tarnlinkd", folder / "tarnlink-capture-access"};
  const auto pkexec = QStandardPaths::findExecutable(QStringLiteral("pkexec"));
  if (!pkexec.isEmpty()) files.pkexec = pkexec.toStdString();
  return files;
}

fs::path bridgeForThisUser(const CapabilityAccessFiles& files, const fs::path& ownFolder,
                           const goosestack::LogSink& log) {
  if (::access(files.bridge.c_str(), X_OK) == 0 || errno != EACCES) return files.bridge;
  auto plain = ownFolder / "tarnlinkd";
  log("[KorvelTarnlink] " + files.bridge.string() + " is for root, the group tarnlink and users " +
      "who were given capture access: " + plain.string() + " serves without, until you ask for it");
  return plain;
}

fs::path usablePreferenceFile(const goosestack::LogSink& log) {
  auto file = defaultPreferenceFile();
  if (storedPairingCode(file, log)) return file;
  std::string folder = (fs::temp_directory_path() / "tarnlink.XXXXXX").string();
  if (::mkdtemp(folder.data()) == nullptr) return file;
  auto own = fs::path(folder) / "preferences.json";
  log("[KorvelTarnlink] Preferences for this run alone: " + own.string());
  return own;
}

}  // namespace tarnlink
