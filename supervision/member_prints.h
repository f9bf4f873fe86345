// What is kept of a dataset's values: one word a member, whatever the member holds, so that the
// memory for thousands of streams is bounded and comparing costs a few nanoseconds a member.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "goosestack/goose_data_value.h"

namespace tarnlink {

/// The upper 16 bits tell the type, with that of members inside; the lower 48 the value: exactly
/// for booleans, numbers of 32 bits and bit strings of up to 32 bits, as a hash for all others.
std::uint64_t memberPrint(const goosestack::GooseDataValue& value);

/// A plain value.
class MemberPrints {
 public:
  /// Members kept one by one. The last word stands for all further ones together.
  static constexpr std::size_t kMax = 256;

  using Values = std::span<const goosestack::GooseDataValue>;

  bool isSame(Values values) const;

  struct Difference {
    bool ofTypes = false;                ///< Number or types of members differ.
    std::vector<std::uint32_t> members;  ///< Indexes in the new values.
  };
  /// What differs in the new values, which are kept from now on.
  Difference replace(Values values);

 private:
  std::size_t count_ = 0;
  std::vector<std::uint64_t> prints_;
};

}  // namespace tarnlink
