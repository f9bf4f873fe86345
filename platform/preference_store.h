// Port to the per-user preference store: texts by key that outlive the process.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarnlink {

/// Safe from any thread, and several programs may share one store.
class PreferenceStore {
 public:
  virtual ~PreferenceStore() = default;

  /// The stored text, read anew at each call; nothing when the key is unset or holds no text.
  virtual std::optional<std::string> read(std::string_view key) = 0;

  /// Never fails towards the caller: a text that cannot be stored is logged in one line and kept
  /// for the life of the process.
  virtual void write(std::string_view key, std::string_view text) = 0;
};

/// One JSON object of texts in a file of mode 0600. Takes a sink for its log lines.
std::unique_ptr<PreferenceStore> makePreferenceStore(
    std::filesystem::path file, std::function<void(std::string_view)> log);

/// $XDG_CONFIG_HOME/tarnlink/preferences.json, else ~/.config/tarnlink/preferences.json.
std::filesystem::path defaultPreferenceFile();

}  // namespace tarnlink
