#include "platform/admin_command.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace tarnlink {
namespace {

constexpr const char* kShell = "/bin/sh";
constexpr const char* kPkexec = "/usr/bin/pkexec";
// Its internal agent would ask on a terminal, which belongs to nobody here.
constexpr const char* kNoAgent = "--disable-internal-agent";
constexpr const char* kOsascript = "/usr/bin/osascript";

// pkexec(1), RETURN VALUE.
constexpr int kPkexecDismissed = 126;
constexpr int kPkexecNotAuthorized = 127;

AdminError cancelled() {
  return {kAdminCancelled, "Benutzer hat abgebrochen"};
}

// As one word of a shell command line.
std::string quotedForShell(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string_view firstLine(std::string_view text) {
  return text.substr(0, text.find_first_of("\r\n"));
}

AdminError unavailable(std::string_view reason, const std::string& byHand) {
  std::string text = "Keine Administratorrechte";
  if (!reason.empty()) text.append(" (").append(reason).append(")");
  return {kAdminUnavailable, text + ". Bitte von Hand ausführen: " + byHand};
}

std::vector<std::string> argumentsFor(AdminRights rights, const std::string& commandLine) {
  switch (rights) {
    case AdminRights::held:
      break;
    case AdminRights::pkexec:
      return {kPkexec, kNoAgent, kShell, "-c", commandLine};
    case AdminRights::osascript:
      return {kOsascript, "-e",
              "do shell script \"" + escapeForAppleScript(commandLine) +
                  "\" with administrator privileges"};
  }
  return {kShell, "-c", commandLine};
}

// The scripting tool tells a dismissed prompt by text alone.
bool saysCancelled(const std::string& text) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text.find("-128") != std::string::npos || lower.find("canceled") != std::string::npos;
}

// `byHand`: what to run where nobody can grant the rights.
AdminResult resultOf(AdminRights rights, boost::system::result<ProcessOutcome> outcome,
                     const std::string& byHand) {
  if (!outcome) {
    const auto error = outcome.error();
    if (error == boost::system::errc::operation_canceled) return cancelled();
    if (rights != AdminRights::held && error == boost::system::errc::timed_out) {
      return AdminError{kAdminUnanswered, "Niemand hat die Administratorabfrage beantwortet"};
    }
    if (rights == AdminRights::pkexec && error == boost::system::errc::no_such_file_or_directory) {
      return unavailable("pkexec fehlt", byHand);
    }
    return AdminError{error.value(), error.message()};
  }
  if (outcome->succeeded()) return {};
  const int status = outcome->shellStatus();
  if (rights == AdminRights::pkexec) {
    if (status == kPkexecDismissed) return cancelled();
    if (status == kPkexecNotAuthorized) {
      return unavailable(firstLine(outcome->err), byHand);
    }
  }
  if (rights == AdminRights::osascript && saysCancelled(outcome->err)) return cancelled();
  return AdminError{status, std::move(outcome->err)};
}

}  // namespace

std::string escapeForAppleScript(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\' || c == '"') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

AdminResult runAsAdmin(ProcessRunner& runner, AdminRights rights, const std::string& commandLine) {
  return resultOf(rights, runner.run(argumentsFor(rights, commandLine)),
                  "sudo sh -c " + quotedForShell(commandLine));
}

AdminResult runProgramAsAdmin(ProcessRunner& runner, const std::string& pkexec,
                              const std::string& program) {
  return resultOf(AdminRights::pkexec, runner.run({pkexec, kNoAgent, program}),
                  "sudo " + quotedForShell(program));
}

}  // namespace tarnlink
