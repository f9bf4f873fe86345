// Port to the per-user preference store: texts by key that outlive the process.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tarnlink {

/// Safe from any thread, and several programs may share one store. Nothing here fails towards the
/// caller: what cannot be read is unset, what cannot be stored is kept for the life of the process.
class PreferenceStore {
 public:
  virtual ~PreferenceStore() = default;

  /// The stored text, read anew at each call; nothing when the key is unset or holds no text.
  virtual std::optional<std::string> read(std::string_view key) = 0;

  /// A text that cannot be stored is logged in one line and kept for the life of the process.
  virtual void write(std::string_view key, std::string_view text) = 0;

  /// The stored text if `isGood` accepts it; otherwise stores what `make` gives and returns that.
  /// Stores that programs share do it in one step, so that all of them end with the same text.
  virtual std::string readOrStore(std::string_view key,
                                  const std::function<bool(std::string_view)>& isGood,
                                  const std::function<std::string()>& make) {
    if (auto text = read(key); text && isGood(*text)) return *std::move(text);
    std::string made = make();
    write(key, made);
    return made;
  }
};

/// One JSON object in a file of mode 0600, in directories that are made with mode 0700. Members of
/// other programs, texts or not, keep their place and value. Changes replace the file in one step
/// under the lock file "<file>.lock". A file that is no JSON object reads as empty; the first
/// change renames it to "<file>.damaged-<n>", n from 1, never over an older one. A file that
/// exists but cannot be read is left alone, and the texts last read from it stand. Log lines go to
/// `log`.
std::unique_ptr<PreferenceStore> makePreferenceStore(const std::filesystem::path& file,
                                                     std::function<void(std::string_view)> log);

/// $XDG_CONFIG_HOME/tarnlink/preferences.json, else ~/.config/tarnlink/preferences.json. Call
/// before other threads start: it reads the environment.
std::filesystem::path defaultPreferenceFile();

}  // namespace tarnlink
