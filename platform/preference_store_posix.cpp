#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <boost/system/result.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "platform/posix.h"
#include "platform/preference_store.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using boost::system::result;
using Json = nlohmann::ordered_json;  // Keeps the members' order.

constexpr std::size_t kMaxFileSize = std::size_t{1} << 20;  // Octets; a larger file is unreadable.
constexpr int kMaxNesting = 64;         // A deeper document is damaged: writing one recurses.
constexpr int kMaxDamagedFiles = 1000;  // Then nothing is stored until somebody tidies up.
constexpr std::chrono::milliseconds kLockLimit{1000};  // Holders need a few milliseconds.
constexpr std::chrono::milliseconds kLockPause{5};

fs::path withSuffix(fs::path file, std::string_view suffix) {
  return file += suffix;
}

result<void> makePrivateDirectories(const fs::path& directory) {
  fs::path made;
  for (const fs::path& part : directory) {
    made /= part;
    if (::mkdir(made.c_str(), S_IRWXU) == 0) continue;
    // What exists may also answer EROFS or EACCES; whether it serves shows when it is used.
    const int error = errno;
    std::error_code ignored;
    if (!fs::is_directory(made, ignored)) return errorOf(error == EEXIST ? ENOTDIR : error);
  }
  return {};
}

// The lock lives as long as the descriptor, also between threads of one process: each call opens
// a file description of its own.
result<UniqueFd> lockFile(const fs::path& path) {
  UniqueFd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!lock) return lastError();
  const auto deadline = std::chrono::steady_clock::now() + kLockLimit;
  while (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return lastError();
    if (std::chrono::steady_clock::now() >= deadline) return errorOf(ETIMEDOUT);
    std::this_thread::sleep_for(kLockPause);
  }
  return lock;
}

// The file's octets; nothing when there is no file.
result<std::optional<std::string>> readFile(const fs::path& path) {
  // Not blocking, so that a FIFO in the file's place does not hold the caller.
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) {
    if (errno == ENOENT) return std::optional<std::string>();
    return lastError();
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return lastError();
  if (!S_ISREG(status.st_mode)) return errorOf(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  std::string octets;
  char block[4096];
  while (true) {
    const ssize_t count = ::read(file.get(), block, sizeof block);
    if (count == 0) return std::optional<std::string>(std::move(octets));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return lastError();
    octets.append(block, static_cast<std::size_t>(count));
    if (octets.size() > kMaxFileSize) return errorOf(EFBIG);
  }
}

// Nothing when the octets are no JSON object (a damaged file).
std::optional<Json> parseObject(const std::string& octets) {
  bool tooDeep = false;
  const auto watchDepth = [&tooDeep](int depth, Json::parse_event_t, Json&) {
    tooDeep = tooDeep || depth > kMaxNesting;
    return true;
  };
  Json json = Json::parse(octets, watchDepth, /*allow_exceptions=*/false);
  if (tooDeep || !json.is_object()) return std::nullopt;
  return json;
}

std::optional<std::string> textOf(const Json& object, std::string_view key) {
  const auto found = object.find(std::string(key));
  if (found == object.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

result<void> writeAndSync(const UniqueFd& file, std::string_view octets) {
  // A left-over of a crash may have another mode.
  if (::fchmod(file.get(), S_IRUSR | S_IWUSR) != 0) return lastError();
  while (!octets.empty()) {
    const ssize_t count = ::write(file.get(), octets.data(), octets.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return lastError();
    octets.remove_prefix(static_cast<std::size_t>(count));
  }
  if (::fsync(file.get()) != 0) return lastError();
  return {};
}

// After a crash at any moment the file holds either the old or the new octets. Needs the lock,
// because all writers use the one temporary name.
result<void> replaceFile(const fs::path& path, std::string_view octets) {
  const fs::path temporary = withSuffix(path, ".tmp");
  const UniqueFd file(::open(
      temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!file) return lastError();
  auto written = writeAndSync(file, octets);
  if (written && ::rename(temporary.c_str(), path.c_str()) != 0) written = lastError();
  if (!written) {
    ::unlink(temporary.c_str());
    return written;
  }
  // The new name is in place; a directory that cannot be synced only delays it to the disk.
  const UniqueFd directory(::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) ::fsync(directory.get());
  return {};
}

// Gives the file another name; link(2) refuses to replace an older one.
result<fs::path> setAside(const fs::path& path) {
  for (int n = 1; n <= kMaxDamagedFiles; ++n) {
    fs::path kept = withSuffix(path, ".damaged-" + std::to_string(n));
    if (::link(path.c_str(), kept.c_str()) == 0) {
      if (::unlink(path.c_str()) != 0) return lastError();
      return kept;
    }
    if (errno != EEXIST) return lastError();
  }
  return errorOf(EEXIST);
}

class FilePreferenceStore final : public PreferenceStore {
 public:
  FilePreferenceStore(fs::path file, std::function<void(std::string_view)> log)
      : file_(std::move(file)), log_(std::move(log)) {}

  std::optional<std::string> read(std::string_view key) override {
    const auto octets = readFile(file_);
    const std::lock_guard guard(mutex_);
    if (const auto kept = unstored_.find(key); kept != unstored_.end()) return kept->second;
    if (!octets) return lastRead(key);
    const auto object = *octets ? parseObject(**octets) : std::nullopt;
    auto text = object ? textOf(*object, key) : std::nullopt;
    lastRead_[std::string(key)] = text;
    return text;
  }

  void write(std::string_view key, std::string_view text) override {
    change(key, [text](const std::optional<std::string>&) { return std::string(text); });
  }

  std::string readOrStore(std::string_view key, const std::function<bool(std::string_view)>& isGood,
                          const std::function<std::string()>& make) override {
    if (auto text = read(key); text && isGood(*text)) return *std::move(text);
    return change(key, [&](const std::optional<std::string>& current) {
      return current && isGood(*current) ? *current : make();
    });
  }

 private:
  /// Makes the new text from the current one.
  using Decision = std::function<std::string(const std::optional<std::string>&)>;

  std::string change(std::string_view key, const Decision& decide) {
    const std::lock_guard guard(changeMutex_);
    const auto stored = changeFile(key, decide);
    const std::lock_guard memoryGuard(mutex_);
    if (stored) {
      unstored_.erase(std::string(key));
      lastRead_[std::string(key)] = *stored;
      return *stored;
    }
    std::string text = decide(lastRead(key));
    log_("[Preferences] Cannot store " + std::string(key) + " in " + file_.string() + ": " +
         stored.error().message() + "; kept until this program ends");
    unstored_[std::string(key)] = text;
    return text;
  }

  result<std::string> changeFile(std::string_view key, const Decision& decide) {
    if (auto made = makePrivateDirectories(file_.parent_path()); !made) return made.error();
    const auto lock = lockFile(withSuffix(file_, ".lock"));
    if (!lock) return lock.error();
    const auto octets = readFile(file_);
    if (!octets) return octets.error();

    auto object = *octets ? parseObject(**octets) : Json::object();
    if (!object) {
      const auto kept = setAside(file_);
      if (!kept) return kept.error();
      log_("[Preferences] " + file_.string() + " is not a JSON object; kept as " + kept->string());
      object = Json::object();
    }
    const auto current = textOf(*object, key);
    std::string text = decide(current);
    if (current == text) return text;

    (*object)[std::string(key)] = text;
    std::string changed;
    try {
      changed = object->dump(2) + "\n";
    } catch (const Json::exception&) {  // JSON holds UTF-8 alone.
      return errorOf(EILSEQ);
    }
    if (auto replaced = replaceFile(file_, changed); !replaced) return replaced.error();
    return text;
  }

  std::optional<std::string> lastRead(std::string_view key) const {
    const auto found = lastRead_.find(key);
    return found != lastRead_.end() ? found->second : std::nullopt;
  }

  using Texts = std::map<std::string, std::optional<std::string>, std::less<>>;

  const fs::path file_;
  const std::function<void(std::string_view)> log_;
  std::mutex changeMutex_;  // Held over a change; locked before mutex_.
  std::mutex mutex_;        // Guards what follows.
  Texts unstored_;          // Texts that could not be stored; they hide the file's.
  Texts lastRead_;  // Stand while the file cannot be read, as when descriptors have run out.
};

}  // namespace

std::unique_ptr<PreferenceStore> makePreferenceStore(const fs::path& file,
                                                     std::function<void(std::string_view)> log) {
  return std::make_unique<FilePreferenceStore>(fs::absolute(file), std::move(log));
}

fs::path defaultPreferenceFile() {
  // Programs ask before they start threads; nothing here changes the environment or the user.
  // NOLINTBEGIN(concurrency-mt-unsafe)
  fs::path directory;
  // The XDG base directory specification has relative paths ignored.
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config == '/') {
    directory = config;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    directory = fs::path(home) / ".config";
  } else if (const passwd* user = ::getpwuid(::getuid()); user != nullptr) {
    directory = fs::path(user->pw_dir) / ".config";
  } else {
    directory = "/var/lib";  // A service without a user entry.
  }
  // NOLINTEND(concurrency-mt-unsafe)
  return directory / "tarnlink" / "preferences.json";
}

}  // namespace tarnlink
