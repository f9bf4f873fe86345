// A folder of the test's own.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace tarnlink::test {

/// Goes with its object. Everybody may look into it.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "tarnlink-test-XXXXXX";
    path_ = ::mkdtemp(pattern.data());
    std::filesystem::permissions(path_, std::filesystem::perms(0755));
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline std::string contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline void writeFile(const std::filesystem::path& file, std::string_view octets,
                      std::filesystem::perms permissions = std::filesystem::perms(0644)) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << octets;
  std::filesystem::permissions(file, permissions);
}

}  // namespace tarnlink::test
