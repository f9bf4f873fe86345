#include "platform/preference_store.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/scratch_folder.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using test::writeFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class PreferenceFile : public ::testing::Test {
 protected:
  std::unique_ptr<PreferenceStore> open() {
    return makePreferenceStore(file_, [this](std::string_view line) { log_.emplace_back(line); });
  }
  static std::string readOrStore(PreferenceStore& store, const std::string& made) {
    return store.readOrStore(
        "pairingCode", [](std::string_view) { return true; }, [&] { return made; });
  }
  static void withLimit(__rlimit_resource resource, rlim_t limit,
                        const std::function<void()>& part) {
    rlimit before{};
    ::getrlimit(resource, &before);
    const rlimit narrow{limit, before.rlim_max};
    ::setrlimit(resource, &narrow);
    part();
    ::setrlimit(resource, &before);
  }

  const test::ScratchFolder folder_;
  const fs::path file_ = folder_ / "tarnlink/preferences.json";
  std::vector<std::string> log_;
};

TEST_F(PreferenceFile, IsMadePrivateAndReadAnewAtEachUse) {
  const auto store = open();
  store->write("pairingCode", "004711");
  EXPECT_EQ(open()->read("pairingCode"), "004711");
  EXPECT_EQ(open()->read("activeInterface"), std::nullopt);
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(file_.parent_path()).permissions(), fs::perms(0700));
  EXPECT_THAT(log_, IsEmpty());
  writeFile(file_, R"({"pairingCode": "222222"})");
  EXPECT_EQ(store->read("pairingCode"), "222222");
  writeFile(file_, R"({"pairingCode": 333333})");
  EXPECT_EQ(store->read("pairingCode"), std::nullopt);
  fs::remove(file_);
  EXPECT_EQ(store->read("pairingCode"), std::nullopt);
}

TEST_F(PreferenceFile, KeepsForeignMembersInPlace) {
  writeFile(file_, R"({"z": [1, {"b": null}], "pairingCode": 5, "a": 18446744073709551615, "f": 0.1,
          "text": "\u00e4\n"})");
  open()->write("pairingCode", "123456");
  std::string compact = contentOf(file_);
  std::erase_if(compact, [](char c) { return c == ' ' || c == '\n'; });
  EXPECT_EQ(compact,
            R"({"z":[1,{"b":null}],"pairingCode":"123456","a":18446744073709551615,"f":0.1,)"
            "\"text\":\"\u00e4\\n\"}");
}

TEST_F(PreferenceFile, DamagedOctetsAreKeptBesideItAndNeverReplaceOlderOnes) {
  const std::string nested = R"({"a":)" + std::string(65, '[') + std::string(65, ']') + "}";
  const std::string damaged[] = {"",
                                 R"({"pairingCode": "123456")",
                                 R"(["pairingCode"])",
                                 "{\"a\": \"\xFF\"}",
                                 "{} trailing",
                                 nested};
  const auto store = open();
  int n = 0;
  for (const auto& octets : damaged) {
    SCOPED_TRACE(octets.substr(0, 40));
    writeFile(file_, octets);
    EXPECT_EQ(store->read("pairingCode"), std::nullopt);
    EXPECT_EQ(contentOf(file_), octets) << "reading must not touch the file";
    log_.clear();
    EXPECT_EQ(readOrStore(*store, "654321"), "654321");
    EXPECT_EQ(open()->read("pairingCode"), "654321");
    const std::string kept = file_.string() + ".damaged-" + std::to_string(++n);
    ASSERT_TRUE(fs::exists(kept));
    EXPECT_EQ(contentOf(kept), octets);
    EXPECT_THAT(log_, ElementsAre(HasSubstr(kept)));
  }
}

TEST_F(PreferenceFile, ATextThatCannotBeStoredLivesInThisProcess) {
  const auto store = open();
  int lock = -1;
  const auto lockPath = file_.string() + ".lock";
  const std::tuple<const char*, std::function<void()>, std::string> cases[] = {
      {"a file in the directory's place", [&] { writeFile(file_.parent_path(), ""); }, "1"},
      {"a directory in the lock's place", [&] { fs::create_directories(lockPath); }, "2"},
      {"a directory in the file's place", [&] { fs::create_directories(file_); }, "3"},
      {"a FIFO in the file's place",
       [&] {
         fs::create_directories(file_.parent_path());
         ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
       },
       "0"},
      {"a lock that is never given back",
       [&] {
         writeFile(lockPath, "");
         lock = ::open(lockPath.c_str(), O_RDWR | O_CLOEXEC);
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
  writeFile(file_, "{}");
  EXPECT_EQ(store->read("pairingCode"), std::nullopt) << "the memory's text must be gone";
}

TEST_F(PreferenceFile, NeitherAFullDiskNorUsedUpDescriptorsChangeWhatIsStored) {
  const auto store = open();
  store->write("pairingCode", "111111");
  withLimit(RLIMIT_NOFILE, 0, [&] {
    EXPECT_EQ(store->read("pairingCode"), "111111");
    EXPECT_EQ(readOrStore(*store, "999999"), "111111");
  });
  std::signal(SIGXFSZ, SIG_IGN);
  withLimit(RLIMIT_FSIZE, 8, [&] { store->write("pairingCode", "222222"); });
  EXPECT_EQ(store->read("pairingCode"), "222222");
  EXPECT_EQ(open()->read("pairingCode"), "111111");
  EXPECT_FALSE(fs::exists(file_.string() + ".tmp"));
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
      codes[static_cast<std::size_t>(i)] = readOrStore(*store, own);
    });
  }
  for (auto& program : programs) program.join();
  for (int i = 0; i < kPrograms; ++i) {
    EXPECT_EQ(open()->read(std::to_string(i)), std::to_string(i) + "-4");
  }
  EXPECT_THAT(codes, ::testing::Each(open()->read("pairingCode").value()));
}

}  // namespace
}  // namespace tarnlink
