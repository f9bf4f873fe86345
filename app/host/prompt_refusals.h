// Which administrator prompts are not put up again, because somebody has just refused them.
#pragma once

#include <boost/system/result.hpp>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "platform/admin_command.h"

namespace tarnlink {

/// A plain value that is told the time. Clients decide what is asked for, so without it they could
/// put up prompts without end.
class PromptRefusals {
 public:
  using Instant = std::chrono::steady_clock::time_point;

  /// How long a refusal holds for the link that was asked for.
  static constexpr std::chrono::seconds kHolds{60};
  /// So many within that time, of any links, hold for all: a client can name 4,094 of them. Where
  /// there is nobody to ask, nobody is bothered, and each link has its own answer.
  static constexpr std::ptrdiff_t kMost = 3;

  /// Why nobody is to be asked now: the refusal, and when to try again; nothing where a prompt may
  /// be put up.
  std::optional<AdminError> standing(const std::string& link, Instant now);

  /// What came of a prompt. Only a failure of the prompt itself is a refusal, not one of the
  /// command that it was for.
  void note(const std::string& link, const AdminError& failure, Instant now);

 private:
  struct Refusal {
    std::string link;
    AdminError failure;
    Instant time;
  };
  std::vector<Refusal> recent_;  // The oldest first.
};

}  // namespace tarnlink
