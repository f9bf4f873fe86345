#include "platform/preference_store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class PreferenceFile : public ::testing::Test {
 protected:
  PreferenceFile() {
    std::string pattern = fs::temp_directory_path() / "preferences-XXXXXX";
    directory_ = ::mkdtemp(pattern.data());
    file_ = directory_ / "tarnlink" / "preferences.json";
  }
  ~PreferenceFile() override { fs::remove_all(directory_); }

  std::unique_ptr<PreferenceStore> open() {
    return makePreferenceStore(file_, [this](std::string_view line) { log_.emplace_back(line); });
  }
  void put(std::string_view octets) {
    fs::create_directories(file_.parent_path());
    std::ofstream(file_, std::ios::binary) << octets;
  }
  static std::string octetsOf(const fs::path& path) {
    std::ostringstream octets;
    octets << std::ifstream(path, std::ios::binary).rdbuf();
    return octets.str();
  }
  static mode_t modeOf(const fs::path& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
  }

  fs::path directory_, file_;
  std::vector<std::string> log_;
};

TEST_F(PreferenceFile, IsMadePrivateAndReadAnewAtEachUse) {
  const auto store = open();
  store->write("pairingCode", "004711");
  EXPECT_EQ(open()->read("pairingCode"), "004711");
  EXPECT_EQ(open()->read("activeInterface"), std::nullopt);
  EXPECT_EQ(modeOf(file_), 0600U);
  EXPECT_EQ(modeOf(file_.parent_path()), 0700U);
  EXPECT_THAT(log_, IsEmpty());
  put(R"({"pairingCode": "222222"})");
  EXPECT_EQ(store->read("pairingCode"), "222222");
  put(R"({"pairingCode": 333333})");
  EXPECT_EQ(store->read("pairingCode"), std::nullopt);
  fs::remove(file_);
  EXPECT_EQ(store->read("pairingCode"), std::nullopt);
}

TEST_F(PreferenceFile, KeepsForeignMembersInPlace) {
  put(R"({"z": [1, {"b": null}], "pairingCode": 5, "a": 18446744073709551615, "f": 0.1,
          "text": "\u00e4\n"})");
  open()->write("pairingCode", "123456");
  std::string compact = octetsOf(file_);
  std::erase_if(compact, [](char c) { return c == ' ' || c == '\n'; });
  EXPECT_EQ(compact,
            R"({"z":[1,{"b":null}],"pairingCode":"123456","a":18446744073709551615,"f":0.1,)"
            "\"text\":\"\u00e4\\n\"}");
}

TEST_F(PreferenceFile, DamagedOctetsAreKeptBesideItAndNeverReplaceOlderOnes) {
  const std::string nested =
      "{\"a\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}";
  const std::string damaged[] = {"",
                                 "{\"pairingCode\": \"123456\"",
                                 "[\"pairingCode\"]",
                                 "{\"a\": \"\xFF\"}",
                                 "{} trailing",
                                 nested};
  const auto store = open();
  int n = 0;
  for (const auto& octets : damaged) {
    SCOPED_TRACE(octets.substr(0, 40));
    put(octets);
    EXPECT_EQ(store->read("pairingCode"), std::nullopt);
    EXPECT_EQ(octetsOf(file_), octets) << "reading must not touch the file";
    log_.clear();
    EXPECT_EQ(store->readOrStore(
                  "pairingCode", [](std::string_view) { return true; },
                  [] { return std::string("654321"); }),
              "654321");
    EXPECT_EQ(open()->read("pairingCode"), "654321");
    const std::string kept = file_.string() + ".damaged-" + std::to_string(++n);
    EXPECT_TRUE(fs::exists(kept));
    EXPECT_EQ(octetsOf(kept), octets);
    EXPECT_THAT(log_, ElementsAre(HasSubstr(kept)));
  }
}

TEST_F(PreferenceFile, ATextThatCannotBeStoredLivesInThisProcess) {
  const auto store = open();
  int lock = -1;
  const struct {
    const char* situation;
    std::function<void()> cause;
    std::string text;
  } cases[] = {
      {"a file in the directory's place", [&] { std::ofstream(file_.parent_path()); }, "1"},
      {"a directory in the lock's place", [&] { fs::create_directories(file_.string() + ".lock"); },
       "2"},
      {"a FIFO in the file's place",
       [&] {
         fs::create_directories(file_.parent_path());
         ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
       },
       "0"},
      {"a directory in the file's place", [&] { fs::create_directories(file_); }, "3"},
      {"a lock that is never given back",
       [&] {
         fs::create_directories(file_.parent_path());
         lock = ::open((file_.string() + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
         ASSERT_EQ(::flock(lock, LOCK_EX), 0);
       },
       "4"},
      {"not UTF-8", [] {}, "5\xFF"},
  };
  for (const auto& [situation, cause, text] : cases) {
    SCOPED_TRACE(situation);
    cause();
    log_.clear();
    store->write("pairingCode", text);
    EXPECT_EQ(store->read("pairingCode"), text);
    EXPECT_THAT(log_, ElementsAre(HasSubstr("Cannot store pairingCode")));
    EXPECT_EQ(open()->read("pairingCode"), std::nullopt);
    fs::remove_all(file_.parent_path());
  }
  ::close(lock);
  store->write("pairingCode", "stored again");
  put("{}");
  EXPECT_EQ(store->read("pairingCode"), std::nullopt) << "the memory's text must be gone";
}

TEST_F(PreferenceFile, ClientsThatUseUpAllDescriptorsDoNotChangeTheCode) {
  const auto store = open();
  store->write("pairingCode", "111111");
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  const auto read = store->read("pairingCode");
  const auto readOrMade = store->readOrStore(
      "pairingCode", [](std::string_view) { return true; }, [] { return std::string("999999"); });
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(read, "111111");
  EXPECT_EQ(readOrMade, "111111");
  EXPECT_EQ(open()->read("pairingCode"), "111111");
}

TEST_F(PreferenceFile, ProgramsThatWriteAtOnceLoseNothingAndAgreeOnACode) {
  constexpr int kPrograms = 8;
  std::vector<std::thread> programs;
  std::vector<std::string> codes(kPrograms);
  for (int i = 0; i < kPrograms; ++i) {
    programs.emplace_back([&, i] {
      const auto store = makePreferenceStore(file_, [](std::string_view) {});
      const std::string own = std::to_string(i);
      for (int n = 0; n < 5; ++n) store->write(own, own + "-" + std::to_string(n));
      codes[static_cast<std::size_t>(i)] = store->readOrStore(
          "pairingCode", [](std::string_view) { return true; }, [&] { return own; });
    });
  }
  for (auto& program : programs) program.join();
  for (int i = 0; i < kPrograms; ++i) {
    EXPECT_EQ(open()->read(std::to_string(i)), std::to_string(i) + "-4");
  }
  EXPECT_EQ(std::set(codes.begin(), codes.end()).size(), 1U);
  EXPECT_EQ(open()->read("pairingCode"), codes.front());
}

// Gives its own process a mount namespace and, without root, a user namespace for that.
bool enterMountNamespace() {
  if (const auto user = ::geteuid(), group = ::getegid(); user != 0) {
    if (::unshare(CLONE_NEWUSER) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  }
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Runs the part in a child; what it returns is the exit status.
int inAChild(const std::function<bool()>& part) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(part() ? 0 : 1);
  int status = -1;
  ::waitpid(child, &status, 0);
  return status;
}

TEST_F(PreferenceFile, ADiskThatTakesNothingLeavesTheOldFileAndTheBridgeServes) {
  fs::create_directories(file_.parent_path());
  const std::string folder = file_.parent_path();
  const struct {
    const char* situation;
    std::function<bool()> cause;
  } cases[] = {
      {"full disk",
       [&] {
         std::ofstream(file_.parent_path() / "filler") << std::string(1 << 20, 'x');
         return true;
       }},
      {"full disk, no file more",
       [&] { return ::mount("none", folder.c_str(), "tmpfs", MS_REMOUNT, "nr_inodes=3") == 0; }},
      {"read-only",
       [&] { return ::mount("none", folder.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "") == 0; }},
  };
  for (const auto& [situation, cause] : cases) {
    EXPECT_EQ(inAChild([this, &folder, &cause = cause] {
                if (!enterMountNamespace() ||
                    ::mount("none", folder.c_str(), "tmpfs", 0, "size=16k,nr_inodes=8") != 0) {
                  return false;
                }
                open()->write("pairingCode", "111111");
                const std::string before = octetsOf(file_);
                if (before.empty() || !cause()) return false;
                const auto store = open();
                store->write("pairingCode", "222222");
                return octetsOf(file_) == before && !fs::exists(file_.string() + ".tmp") &&
                       store->read("pairingCode") == "222222" &&
                       open()->read("pairingCode") == "111111";
              }),
              0)
        << situation;
  }
}

}  // namespace
}  // namespace tarnlink
