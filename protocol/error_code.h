// Codes of the "error" event.
#pragma once

#include <cstdint>

namespace tarnlink {

struct ErrorCode {
  static constexpr std::int64_t undecodable = -1;
  static constexpr std::int64_t captureFailed = 1;
  static constexpr std::int64_t publishFailed = 2;
  static constexpr std::int64_t vlanSetupFailed = 3;
  static constexpr std::int64_t svCaptureFailed = 4;
  static constexpr std::int64_t svPublishFailed = 5;
  static constexpr std::int64_t invalidInterfaceName = 6;
  static constexpr std::int64_t notAuthenticated = 7;
  static constexpr std::int64_t systemFailed = 8;  ///< Memory, descriptors or threads ran out.
};

}  // namespace tarnlink
