#include "app/desktop/desktop_files.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/scratch_folder.h"

namespace tarnlink {
namespace {

namespace fs = std::filesystem;

TEST(DesktopFiles, AClosedBridgeAndUnusablePreferencesHaveASubstitute) {
  const test::ScratchFolder folder;
  const auto own = folder / "bin";
  const auto installed = folder / "libexec/tarnlink/tarnlinkd";
  std::string line;
  const auto log = [&line](std::string_view text) { line = text; };
  EXPECT_EQ(findBridgeFiles(own).bridge, own / "tarnlinkd");
  test::writeFile(installed, "");
  const auto files = findBridgeFiles(own);
  EXPECT_EQ(files.helper, installed.parent_path() / "tarnlink-capture-access");
  EXPECT_EQ(bridgeForThisUser(files, own, log), own / "tarnlinkd");
  EXPECT_NE(line.find(installed.string() + " is for root"), std::string::npos);
  fs::permissions(installed, fs::perms(0755));
  EXPECT_EQ(bridgeForThisUser(files, own, log), installed);

  ::setenv("XDG_CONFIG_HOME", folder.path().c_str(), 1);
  EXPECT_EQ(usablePreferenceFile(log), folder / "tarnlink/preferences.json");
  ::setenv("XDG_CONFIG_HOME", installed.c_str(), 1);  // No folder.
  const auto substitute = usablePreferenceFile(log);
  EXPECT_TRUE(line.ends_with("for this run alone: " + substitute.string())) << line;
  EXPECT_TRUE(fs::is_directory(substitute.parent_path()));
  fs::remove_all(substitute.parent_path());
}

}  // namespace
}  // namespace tarnlink
