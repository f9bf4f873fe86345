// Capture access: what the user is told, what is installed, and whether it then counts as given.
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "app/host/bpf_capability_access.h"
#include "app/host/bpf_permission_helper.h"
#include "tests/support/scratch_folder.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;
using test::ScratchFolder;
using test::writeFile;
using Texts = std::vector<std::string>;

struct AnsweredAlerts final : UserAlerts {
  bool confirm(std::string_view title, std::string_view message, std::string_view accept,
               std::string_view decline) override {
    for (const auto text : {title, message, accept, decline}) shown.emplace_back(text);
    return agrees;
  }
  void showInfo(std::string_view title, std::string_view message) override {
    for (const auto text : {title, message}) shown.emplace_back(text);
  }
  bool agrees = true;
  Texts shown;
};

struct ScriptedAccess final : CaptureAccess {
  bool isGranted() override { return std::exchange(granted, grantedLater); }
  AdminResult install() override { return result; }
  void cancel() override {}
  std::optional<CapabilityGrant> grant() const override { return fileGrant; }
  bool granted = false, grantedLater = false;
  AdminResult result;
  std::optional<CapabilityGrant> fileGrant;
};

TEST(BpfPermissionHelper, TheUserIsToldHowItWent) {
  const auto& texts = userTexts(Language::german);
  const auto failed = [&](const std::string& words) {
    return Texts{std::string(texts.failedTitle), "Fehler: " + words};
  };
  const auto words = [](std::string_view title, std::string_view message) {
    return Texts{std::string(title), std::string(message)};
  };
  const struct {
    const char* situation;
    bool agrees;
    AdminResult installed;
    bool after;
    Texts answer;
  } cases[] = {
      {"later", false, {}, true, {}},
      {"cancelled", true, AdminError{-128, "any"}, true, failed("Benutzer hat abgebrochen")},
      {"tool's text", true, AdminError{1, "\n boom \r\n"}, false, failed("boom")},
      {"no text", true, AdminError{1, "\xFF"}, false, failed("unknown error")},
      {"incomplete", true, {}, false, words(texts.incompleteTitle, texts.incompleteMessage)},
      {"done", true, {}, true, words(texts.doneTitle, texts.doneMessage)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    AnsweredAlerts alerts;
    alerts.agrees = c.agrees;
    ScriptedAccess access;
    access.grantedLater = c.after;
    access.result = c.installed;
    EXPECT_EQ(BpfPermissionHelper(access, alerts).ensureAccess(),
              c.agrees && c.installed && c.after);
    Texts expected = words(texts.needTitle, texts.needMessage);
    for (const char* button : {"Installieren…", "Später"}) expected.emplace_back(button);
    expected.insert(expected.end(), c.answer.begin(), c.answer.end());
    EXPECT_EQ(alerts.shown, expected);
  }
  AnsweredAlerts alerts;
  ScriptedAccess access;
  access.granted = true;
  EXPECT_TRUE(BpfPermissionHelper(access, alerts).ensureAccess());
  EXPECT_EQ(alerts.shown, Texts{});
}

TEST(BpfPermissionHelper, WhereAFileGetsACapabilityTheQuestionSaysWhichAndHowToTakeItBack) {
  const std::pair<Language, std::string> cases[] = {
      {Language::german, "Fehler: Keine Administratorrechte"},
      {Language::english, "Error: No administrator rights. Please run by hand: sudo /opt/helper"}};
  for (const auto& [language, answer] : cases) {
    AnsweredAlerts alerts;
    ScriptedAccess access;
    access.fileGrant = CapabilityGrant{"/opt/bridge", "/opt/helper"};
    access.result = AdminError{kAdminUnavailable, "Keine Administratorrechte"};
    EXPECT_FALSE(BpfPermissionHelper(access, alerts, userTexts(language)).ensureAccess());
    ASSERT_EQ(alerts.shown.size(), 6U);
    for (const char* part : {"\n\n", "/opt/bridge", "CAP_NET_RAW", "sudo /opt/helper --remove"}) {
      EXPECT_NE(alerts.shown[1].find(part), std::string::npos) << part;
    }
    EXPECT_EQ(alerts.shown[1].find('{'), std::string::npos);
    EXPECT_EQ(alerts.shown[5], answer);
  }
}

/// What isGranted() says in a process of that user, who holds nothing.
bool isGrantedTo(uid_t user, const fs::path& bridge, const std::function<void()>& restrict = {}) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (restrict) restrict();
    if (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0) ::_exit(2);
    ::_exit(BpfCapabilityAccess(nullptr, {bridge, {}}).isGranted() ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2);
  return status == 0;
}

bool setFileCapability(const fs::path& file, const char* text) {
  const cap_t set = ::cap_from_text(text);
  const bool done = ::cap_set_file(file.c_str(), set) == 0;
  ::cap_free(set);
  return done;
}

TEST(BpfCapabilityAccess, TheProgramFileMustGiveItToThisUser) {
  const ScratchFolder folder;
  const auto bridge = folder / "tarnlinkd";
  EXPECT_FALSE(BpfCapabilityAccess(nullptr, {bridge, {}}).isGranted());
  writeFile(bridge, "", fs::perms(0755));
  if (!setFileCapability(bridge, "=")) GTEST_SKIP() << "file capabilities need root";

  EXPECT_FALSE(isGrantedTo(65534, bridge));
  ASSERT_TRUE(setFileCapability(bridge, "cap_net_raw=p"));
  EXPECT_FALSE(isGrantedTo(65534, bridge)) << "permitted, but not effective";
  ASSERT_TRUE(setFileCapability(bridge, "cap_net_raw=ep"));
  EXPECT_TRUE(isGrantedTo(65534, bridge));
  EXPECT_FALSE(isGrantedTo(65534, bridge, [] { ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0); }));
  EXPECT_FALSE(isGrantedTo(65534, bridge, [] { ::cap_drop_bound(CAP_NET_RAW); }));
  EXPECT_FALSE(isGrantedTo(65534, bridge, [path = folder.path().c_str()] {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(path, path, nullptr, MS_BIND, nullptr) != 0 ||
        ::mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID, nullptr) != 0) {
      ::_exit(2);
    }
  })) << "on a file system without set-user-id";
  fs::permissions(bridge, fs::perms(0750));
  EXPECT_FALSE(isGrantedTo(65534, bridge)) << "not executable by this user";
}

TEST(BpfCapabilityAccess, TheHelperGivesItToTheUserWhoAskedAloneAndTakesItBack) {
  const ScratchFolder folder;
  const auto bridge = folder / "tarnlinkd";
  const auto helper = folder / "tarnlink-capture-access";
  fs::copy_file(TARNLINK_CAPTURE_ACCESS, helper);
  const auto run = [&](const std::string& caller, const std::string& arguments = "") {
    return std::system(("env -u PKEXEC_UID -u SUDO_UID " + caller + " " + helper.string() +
                        arguments + " 2>>" + (folder / "said").string())
                           .c_str());
  };
  const auto isOpenToAll = [&] {
    return (fs::status(bridge).permissions() & fs::perms::others_exec) != fs::perms::none;
  };
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  EXPECT_NE(run("PKEXEC_UID=65534"), 0) << "no bridge beside it";
  writeFile(bridge, "", fs::perms(0755));
  EXPECT_NE(run("PKEXEC_UID=65534", " /etc/passwd"), 0);
  if (!setFileCapability(bridge, "=")) GTEST_SKIP() << "no file capabilities here";
  for (const char* nobody : {"", "SUDO_UID=0", "SUDO_UID=x"}) {
    EXPECT_NE(run(nobody), 0) << nobody;
    EXPECT_TRUE(isOpenToAll()) << "else it would lock everybody out";
  }
  EXPECT_NE(test::contentOf(folder / "said").find("Run it as that user: sudo " + helper.string()),
            std::string::npos);

  ASSERT_EQ(run("SUDO_UID=65534"), 0);
  EXPECT_TRUE(isGrantedTo(65534, bridge));
  EXPECT_FALSE(isGrantedTo(65533, bridge));
  ASSERT_EQ(run("PKEXEC_UID=65533"), 0) << "again, for another";
  EXPECT_TRUE(isGrantedTo(65533, bridge) && isGrantedTo(65534, bridge));

  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(run("", " --remove"), 0);
    EXPECT_FALSE(isGrantedTo(65534, bridge));
    EXPECT_TRUE(isOpenToAll());
  }
  ASSERT_EQ(run("PKEXEC_UID=65533"), 0);
  EXPECT_FALSE(isGrantedTo(65534, bridge)) << "the earlier entry has gone";
}

}  // namespace
}  // namespace tarnlink
