// Command lines that need rights over the machine, and who may grant them.
#pragma once

#include <boost/system/result.hpp>
#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "platform/child_process.h"

namespace tarnlink {

/// Code of a prompt that the user dismissed, or of a call that was cancelled.
inline constexpr int kAdminCancelled = -128;
/// Code where nobody can grant the rights: no prompt tool, no agent, no authority.
inline constexpr int kAdminUnavailable = 127;
/// Code of a prompt that nobody answered within the runner's limit.
inline constexpr int kAdminUnanswered = ETIMEDOUT;

struct AdminError {
  int code = 0;  ///< One of the above, else the command line's status or the system's error number.
  std::string text;  ///< For the user. Of a failed command line its standard error as it came,
                     ///< which need not be UTF-8.

  bool operator==(const AdminError&) const = default;
};
using AdminResult = boost::system::result<void, AdminError>;

/// What a dismissed prompt and a cancelled call end with.
AdminError cancelledByUser();

/// Where the rights for a command line come from.
struct AdminPrompt {
  bool asksSomebody;
  std::vector<std::string> (*argumentsFor)(const std::string& commandLine);
  /// What the prompt tool failed with, and so nothing was run; nothing where that is not known.
  /// `byHand`: what a person can run instead.
  std::optional<AdminError> (*refusal)(const boost::system::result<ProcessOutcome>& outcome,
                                       const std::string& byHand);
};

/// None: the process has the rights, and its children inherit them.
extern const AdminPrompt kRightsHeld;
/// polkit's prompt, put up by the desktop's agent.
extern const AdminPrompt kPkexecPrompt;

/// Runs a command line in /bin/sh with administrator rights; blocks, also while the user answers.
/// The shell takes the line as it is: whoever writes it answers for every value in it.
AdminResult runAsAdmin(ProcessRunner& runner, const AdminPrompt& prompt,
                       const std::string& commandLine);

/// Runs one program, an absolute path, without arguments and with administrator rights from
/// polkit's prompt, so that a polkit action can name it. `pkexec`: the prompt tool.
AdminResult runProgramAsAdmin(ProcessRunner& runner, const std::string& pkexec,
                              const std::string& program);

}  // namespace tarnlink
