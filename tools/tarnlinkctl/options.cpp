#include "tools/tarnlinkctl/options.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/tarnlinkctl/advice.h"
#include "tools/tarnlinkctl/publish_options.h"

namespace tarnlink {
namespace {

constexpr double kShortestTimeout = 0.1;  // Seconds.
constexpr double kLongestTimeout = 3600;  // Seconds.

constexpr const char* kFooter =
    "A bridge that 'discover' lists is reached under its name: its address and, without --port, "
    "its\n"
    "port are found out anew each time. Names are not proven: on a network that you do not trust,\n"
    "give an address.\n"
    "'pair' checks the code that the bridge shows (tarnlinkd --show-pairing-code) and remembers "
    "it\n"
    "for that host and port in $XDG_CONFIG_HOME/tarnlink/ctl.json, so that the other commands "
    "need\n"
    "no --code.\n"
    "Exit codes: 0 done, 1 no connection or no answer, 2 bad usage, 3 code wrong or not known,\n"
    "4 the bridge answered with an error.";

/// Another text would only cost an attempt.
std::string checkCode(const std::string& text) {
  const bool isCode = text.size() == 6 && text.find_first_not_of("0123456789") == text.npos;
  return isCode ? "" : "a pairing code has six digits: " + text;
}

void addDiscoverCommand(CLI::App& app, CtlCommand& command) {
  auto* discover = app.add_subcommand("discover", "List the bridges on the network");
  const auto wait =
      std::make_shared<double>(std::chrono::duration<double>(DiscoverCommand().wait).count());
  discover->add_option("--wait", *wait, "Seconds to look for them at most")
      ->check(CLI::Range(kShortestTimeout, kLongestTimeout))
      ->type_name("S")
      ->capture_default_str();
  discover->callback([wait, &command] {
    const auto milliseconds = static_cast<std::int64_t>(*wait * 1000);
    command = DiscoverCommand{std::chrono::milliseconds(milliseconds)};
  });
}

void addPlainCommands(CLI::App& app, CtlCommand& command) {
  const auto pair = std::make_shared<PairCommand>();
  auto* pairApp = app.add_subcommand("pair", "Check a pairing code and remember it");
  pairApp->add_option("CODE", pair->code, "The six digits")
      ->required()
      ->check(checkCode)
      ->type_name("");
  pairApp->callback([pair, &command] { command = *pair; });

  app.add_subcommand("ping", "Measure the time to the bridge and back")->callback([&command] {
    command = PingCommand{};
  });
  app.add_subcommand("interfaces", "List the bridge's Ethernet interfaces")->callback([&command] {
    command = InterfacesCommand{};
  });

  const auto setInterface = std::make_shared<SetInterfaceCommand>();
  auto* setInterfaceApp =
      app.add_subcommand("set-interface", "Choose the interface for capture and publishing");
  setInterfaceApp->add_option("NAME", setInterface->name, "Interface name")
      ->required()
      ->type_name("");
  setInterfaceApp->add_flag("--force", setInterface->force,
                            "Also one that the bridge does not list");
  setInterfaceApp->callback([setInterface, &command] { command = *setInterface; });
}

/// What both kinds of messages are chosen by; more options may follow.
CLI::App* addSubscription(CLI::App& app, const char* name, const char* description,
                          const std::shared_ptr<SubscribeCommand>& subscription,
                          CtlCommand& command) {
  auto* subscribe = app.add_subcommand(name, description);
  subscribe
      ->add_option_function<std::uint16_t>(
          "--app-id",
          [subscription](std::uint16_t appId) {
            auto& filter = subscription->request["appIdFilter"];
            if (subscription->kind == MessageKind::goose) {
              filter = std::to_string(appId);
            } else {
              filter = appId;
            }
          },
          "Only this APPID (4096 or 0x1000)")
      ->check(appIdRange())
      ->type_name("N");
  subscribe->add_option("--count", subscription->count, "End after so many messages")
      ->check(countAboveZero())
      ->type_name("N");
  subscribe->callback([subscription, &command] { command = *subscription; });
  return subscribe;
}

void addSubscribeCommands(CLI::App& app, CtlCommand& command) {
  auto* subscribe = app.add_subcommand("subscribe", "Print messages as they arrive");
  subscribe->require_subcommand(1);
  const auto goose = std::make_shared<SubscribeCommand>(
      SubscribeCommand{MessageKind::goose, {{"cmd", "subscribe_goose"}}, {}});
  addSubscription(*subscribe, "goose", "GOOSE messages, until interrupted", goose, command)
      ->add_option_function<std::string>(
          "--gocb-ref",
          [goose](const std::string& part) { goose->request["goCBRefFilter"] = part; },
          "Only this control block")
      ->type_name("TEXT");
  addSubscription(*subscribe, "sv", "Sampled Values, undecoded, until interrupted",
                  std::make_shared<SubscribeCommand>(
                      SubscribeCommand{MessageKind::sampledValues, {{"cmd", "subscribe_sv"}}, {}}),
                  command);
}

/// For a command line that is wrong: the commands there are, or the word that was meant. One line;
/// empty where there is nothing to say.
std::string suggestion(const CLI::App& app) {
  const CLI::App* level = &app;
  while (!level->get_subcommands().empty()) level = level->get_subcommands().front();
  std::vector<std::string> commands;
  for (const auto* command : level->get_subcommands(nullptr))
    commands.push_back(command->get_name());
  std::vector<std::string> options;
  for (const auto* scope = level; scope; scope = scope->get_parent()) {
    for (const auto* option : scope->get_options()) options.push_back(option->get_name());
  }
  const auto unknown = app.remaining(true);
  for (const auto& word : unknown) {
    const bool isOption = word.starts_with("--");
    const auto meant = nearestWord(word.substr(0, word.find('=')), isOption ? options : commands);
    if (meant.empty()) continue;
    return std::string("'").append(word).append("' is not known; did you mean '").append(meant) +
           "'?\n";
  }
  if (commands.empty()) return "";
  std::string line = unknown.empty() ? "" : "'" + unknown.front() + "' is none of the commands.\n";
  line += "Commands of '" + level->get_name() + "':";
  for (const auto& command : commands) line += " " + command;
  return line + "\n";
}

}  // namespace

std::variant<CtlOptions, CommandLineEnd> parseCtlOptions(int argc, const char* const* argv) {
  CtlOptions options;
  CLI::App app("Command-line client of a Tarnlink bridge.", "tarnlinkctl");
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();  // the options below may follow the command too
  app.add_option("--host", options.host,
                 "Name, as 'discover' lists it or of the host, or address of the bridge")
      ->type_name("HOST")
      ->capture_default_str();
  const auto* port = app.add_option("--port", options.port, "TCP port of the bridge")
                         ->check(CLI::Range(1, 65535))
                         ->type_name("N")
                         ->capture_default_str();
  app.add_option("--code", options.code, "Pairing code, in place of the remembered one")
      ->envname("TARNLINK_CODE")
      ->check(checkCode)
      ->type_name("CODE");
  double timeout = std::chrono::duration<double>(options.timeout).count();
  app.add_option("--timeout", timeout, "Seconds to wait for an answer")
      ->check(CLI::Range(kShortestTimeout, kLongestTimeout))
      ->type_name("S")
      ->capture_default_str();
  app.add_flag("--json", options.json, "Print the bridge's events as they come, one a line");

  addDiscoverCommand(app, options.command);
  addPlainCommands(app, options.command);
  addSubscribeCommands(app, options.command);
  addPublishCommands(app, options.command);

  if (auto end = parseCommandLine(app, argc, argv)) {
    if (end->exitCode != kExitDone) end->text += suggestion(app);
    return *end;
  }
  options.isPortGiven = port->count() > 0;
  options.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(timeout * 1000));
  return options;
}

}  // namespace tarnlink
