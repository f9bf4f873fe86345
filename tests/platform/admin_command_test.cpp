#include "platform/admin_command.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/scripted_process_runner.h"

namespace tarnlink {
namespace {

using test::outcome;

const std::string kLine = R"(ip "a\b"; echo 'c')";
const std::string kByHand = R"(. Bitte von Hand ausführen: sudo sh -c 'ip "a\b"; echo '\''c'\''')";

// Each prompt with the command that puts it up.
struct Prompt {
  AdminRights rights;
  std::vector<std::string> argv;
};
const Prompt kHeld{AdminRights::held, {"/bin/sh", "-c", kLine}};
const Prompt kPkexec{AdminRights::pkexec,
                     {"/usr/bin/pkexec", "--disable-internal-agent", "/bin/sh", "-c", kLine}};
const Prompt kOsascript{
    AdminRights::osascript,
    {"/usr/bin/osascript", "-e",
     R"(do shell script "ip \"a\\b\"; echo 'c'" with administrator privileges)"}};

TEST(AdminCommand, FailuresAreTranslatedForEachPrompt) {
  const auto systemError = [](int number) {
    return boost::system::error_code(number, boost::system::system_category());
  };
  const std::string cancelled = "Benutzer hat abgebrochen";
  const struct {
    const char* situation;
    const Prompt& prompt;
    boost::system::result<ProcessOutcome> answer;
    int code;
    std::string text;
  } cases[] = {
      {"dismissed", kPkexec, outcome(126, "", "Error executing\n"), -128, cancelled},
      {"nobody to ask", kPkexec, outcome(127, "", "Not authorized\n\nReported.\n"), 127,
       "Keine Administratorrechte (Not authorized)" + kByHand},
      {"no prompt tool", kPkexec, systemError(ENOENT), 127,
       "Keine Administratorrechte (pkexec fehlt)" + kByHand},
      {"no answer", kPkexec, systemError(ETIMEDOUT), ETIMEDOUT,
       "Niemand hat die Administratorabfrage beantwortet"},
      {"no end", kHeld, systemError(ETIMEDOUT), ETIMEDOUT, systemError(ETIMEDOUT).message()},
      {"no process", kPkexec, systemError(EAGAIN), EAGAIN, systemError(EAGAIN).message()},
      {"failed tool", kPkexec, outcome(2, "", "error -128\n"), 2, "error -128\n"},
      {"no prompt, so a mere status", kHeld, outcome(126, "", "x"), 126, "x"},
      {"killed", kHeld, ProcessOutcome{0, 15, "", "x", false}, 143, "x"},
      {"dismissed", kOsascript, outcome(1, "", "execution error (-128)\n"), -128, cancelled},
      {"dismissed", kOsascript, outcome(1, "", "User CANCELED.\n"), -128, cancelled},
      {"failed tool", kOsascript, outcome(1, "", "boom\n"), 1, "boom\n"},
      {"cancelled call", kHeld, systemError(ECANCELED), -128, cancelled},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.prompt.argv.front() + ": " + c.situation);
    test::ScriptedProcessRunner runner({{c.prompt.argv, c.answer}});
    const auto result = runAsAdmin(runner, c.prompt.rights, kLine);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, c.code);
    EXPECT_EQ(result.error().text, c.text);
  }
}

}  // namespace
}  // namespace tarnlink
