#include "platform/admin_command.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/scripted_process_runner.h"

namespace tarnlink {
namespace {

using test::outcome;

const std::string kLine = R"(ip "a\b"; echo 'c')";
const std::string kByHand = R"(. Bitte von Hand ausführen: sudo sh -c 'ip "a\b"; echo '\''c'\''')";

TEST(AdminCommand, FailuresAreTranslatedForEachPrompt) {
  const auto systemError = [](int number) {
    return boost::system::error_code(number, boost::system::system_category());
  };
  const AdminError cancelled{-128, "Benutzer hat abgebrochen"};
  const std::string noRights = "Keine Administratorrechte";
  const struct {
    const AdminPrompt& prompt;
    boost::system::result<ProcessOutcome> answer;
    AdminError error;
  } cases[] = {
      {kPkexecPrompt, outcome(126, "", "Error executing\n"), cancelled},
      {kPkexecPrompt,
       outcome(127, "", "Not authorized\n\nReported.\n"),
       {127, noRights + " (Not authorized)" + kByHand}},
      {kPkexecPrompt, systemError(ENOENT), {127, noRights + " (pkexec fehlt)" + kByHand}},
      {kPkexecPrompt,
       systemError(ETIMEDOUT),
       {ETIMEDOUT, "Niemand hat die Administratorabfrage beantwortet"}},
      {kRightsHeld, systemError(ETIMEDOUT), {ETIMEDOUT, systemError(ETIMEDOUT).message()}},
      {kPkexecPrompt, systemError(EAGAIN), {EAGAIN, systemError(EAGAIN).message()}},
      {kPkexecPrompt, outcome(2, "", "error -128\n"), {2, "error -128\n"}},
      {kRightsHeld,
       outcome(126, "", "no prompt, so a mere status"),
       {126, "no prompt, so a mere status"}},
      {kRightsHeld, ProcessOutcome{0, 15, "", "killed", false}, {143, "killed"}},
      {kRightsHeld, systemError(ECANCELED), cancelled},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv{"/bin/sh", "-c", kLine};
    if (c.prompt.asksSomebody) {
      argv.insert(argv.begin(), {"/usr/bin/pkexec", "--disable-internal-agent"});
    }
    test::ScriptedProcessRunner runner({{argv, c.answer}});
    const auto error = runAsAdmin(runner, c.prompt, kLine).error();
    EXPECT_EQ(error, c.error) << error.text << " instead of " << c.error.text;
  }
}

}  // namespace
}  // namespace tarnlink
