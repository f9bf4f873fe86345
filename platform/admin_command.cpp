#include "platform/admin_command.h"

#include <string_view>
#include <utility>

namespace tarnlink {
namespace {

using Outcome = boost::system::result<ProcessOutcome>;

constexpr const char* kShell = "/bin/sh";
constexpr const char* kPkexec = "/usr/bin/pkexec";
// Its internal agent would ask on a terminal, which belongs to nobody here.
constexpr const char* kNoAgent = "--disable-internal-agent";

// pkexec(1), RETURN VALUE.
constexpr int kPkexecDismissed = 126;
constexpr int kPkexecNotAuthorized = 127;

// As one word of a shell command line.
std::string quotedForShell(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

AdminError unavailable(std::string_view reason, const std::string& byHand) {
  std::string text = "Keine Administratorrechte";
  if (!reason.empty()) text.append(" (").append(reason).append(")");
  return {kAdminUnavailable, text + ". Bitte von Hand ausführen: " + byHand};
}

std::optional<AdminError> refusalOfPkexec(const Outcome& outcome, const std::string& byHand) {
  if (!outcome) {
    if (outcome.error() != boost::system::errc::no_such_file_or_directory) return {};
    return unavailable("pkexec fehlt", byHand);
  }
  const int status = outcome->shellStatus();
  if (status == kPkexecDismissed) return cancelledByUser();
  if (status != kPkexecNotAuthorized) return {};
  const std::string_view text = outcome->err;
  return unavailable(text.substr(0, text.find_first_of("\r\n")), byHand);
}

AdminResult resultOf(const AdminPrompt& prompt, const Outcome& outcome, const std::string& byHand) {
  if (outcome && outcome->succeeded()) return {};
  if (auto refusal = prompt.refusal(outcome, byHand)) return *std::move(refusal);
  if (outcome) return AdminError{outcome->shellStatus(), outcome->err};
  const auto error = outcome.error();
  if (error == boost::system::errc::operation_canceled) return cancelledByUser();
  if (prompt.asksSomebody && error == boost::system::errc::timed_out) {
    return AdminError{kAdminUnanswered, "Niemand hat die Administratorabfrage beantwortet"};
  }
  return AdminError{error.value(), error.message()};
}

}  // namespace

const AdminPrompt kRightsHeld{
    false,
    [](const std::string& line) -> std::vector<std::string> {
      return {kShell, "-c", line};
    },
    [](const Outcome&, const std::string&) { return std::optional<AdminError>(); }};

const AdminPrompt kPkexecPrompt{true,
                                [](const std::string& line) -> std::vector<std::string> {
                                  return {kPkexec, kNoAgent, kShell, "-c", line};
                                },
                                refusalOfPkexec};

AdminError cancelledByUser() {
  return {kAdminCancelled, "Benutzer hat abgebrochen"};
}

AdminResult runAsAdmin(ProcessRunner& runner, const AdminPrompt& prompt,
                       const std::string& commandLine) {
  return resultOf(prompt, runner.run(prompt.argumentsFor(commandLine)),
                  "sudo sh -c " + quotedForShell(commandLine));
}

AdminResult runProgramAsAdmin(ProcessRunner& runner, const std::string& pkexec,
                              const std::string& program) {
  return resultOf(kPkexecPrompt, runner.run({pkexec, kNoAgent, program}),
                  "sudo " + quotedForShell(program));
}

}  // namespace tarnlink
