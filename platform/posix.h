// What the files that call the system share.
#pragma once

#include <unistd.h>

#include <boost/system/error_code.hpp>
#include <cerrno>
#include <utility>

namespace tarnlink {

inline boost::system::error_code errorOf(int number) {
  return {number, boost::system::system_category()};
}
inline boost::system::error_code lastError() {
  return errorOf(errno);
}

/// Owns a file descriptor; negative: none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }

  explicit operator bool() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }
  void reset() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace tarnlink
