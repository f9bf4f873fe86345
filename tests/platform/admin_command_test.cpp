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
  const std::string cancelled = "Benutzer hat abgebrochen";
  const struct {
    const char* situation;
    const AdminPrompt& prompt;
    boost::system::result<ProcessOutcome> answer;
    int code;
    std::string text;
  } cases[] = {
      {"dismissed", kPkexecPrompt, outcome(126, "", "Error executing\n"), -128, cancelled},
      {"nobody to ask", kPkexecPrompt, outcome(127, "", "Not authorized\n\nReported.\n"), 127,
       "Keine Administratorrechte (Not authorized)" + kByHand},
      {"no prompt tool", kPkexecPrompt, systemError(ENOENT), 127,
       "Keine Administratorrechte (pkexec fehlt)" + kByHand},
      {"no answer", kPkexecPrompt, systemError(ETIMEDOUT), ETIMEDOUT,
       "Niemand hat die Administratorabfrage beantwortet"},
      {"no end", kRightsHeld, systemError(ETIMEDOUT), ETIMEDOUT, systemError(ETIMEDOUT).message()},
      {"no process", kPkexecPrompt, systemError(EAGAIN), EAGAIN, systemError(EAGAIN).message()},
      {"failed tool", kPkexecPrompt, outcome(2, "", "error -128\n"), 2, "error -128\n"},
      {"no prompt, so a mere status", kRightsHeld, outcome(126, "", "x"), 126, "x"},
      {"killed", kRightsHeld, ProcessOutcome{0, 15, "", "x", false}, 143, "x"},
      {"cancelled call", kRightsHeld, systemError(ECANCELED), -128, cancelled},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.situation);
    std::vector<std::string> argv{"/bin/sh", "-c", kLine};
    if (c.prompt.asksSomebody) {
      argv.insert(argv.begin(), {"/usr/bin/pkexec", "--disable-internal-agent"});
    }
    test::ScriptedProcessRunner runner({{argv, c.answer}});
    const auto result = runAsAdmin(runner, c.prompt, kLine);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, c.code);
    EXPECT_EQ(result.error().text, c.text);
  }
}

}  // namespace
}  // namespace tarnlink
