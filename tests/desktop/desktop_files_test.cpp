#include "app/desktop/desktop_files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace tarnlink {
namespace {

namespace fs = std::filesystem;

TEST(DesktopFiles, AClosedBridgeAndUnusablePreferencesHaveASubstitute) {
  const fs::path folder = fs::path(::testing::TempDir()) / ("files." + std::to_string(::getpid()));
  const auto own = folder / "bin";
  const auto installed = folder / "libexec/tarnlink/tarnlinkd";
  fs::create_directories(own);
  std::string line;
  const auto log = [&line](std::string_view text) { line = text; };
  EXPECT_EQ(findBridgeFiles(own).bridge, own / "tarnlinkd");
  fs::create_directories(installed.parent_path());
  std::ofstream(installed) << "";
  const auto files = findBridgeFiles(own);
  EXPECT_EQ(files.helper, installed.parent_path() / "tarnlink-capture-access");
  EXPECT_EQ(bridgeForThisUser(files, own, log), own / "tarnlinkd");
  EXPECT_NE(line.find(installed.string() + " is for root"), std::string::npos);
  fs::permissions(installed, fs::perms(0755));
  EXPECT_EQ(bridgeForThisUser(files, own, log), installed);

  ::setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
  EXPECT_EQ(usablePreferenceFile(log), folder / "tarnlink/preferences.json");
  ::setenv("XDG_CONFIG_HOME", installed.c_str(), 1);  // No folder.
  const auto substitute = usablePreferenceFile(log);
  EXPECT_TRUE(line.ends_with("for this run alone: " + substitute.string())) << line;
  EXPECT_TRUE(fs::is_directory(substitute.parent_path()));
  fs::remove_all(substitute.parent_path());
  fs::remove_all(folder);
}

}  // namespace
}  // namespace tarnlink
