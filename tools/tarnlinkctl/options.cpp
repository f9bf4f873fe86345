#include "tools/tarnlinkctl/options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <sstream>

namespace tarnlink {
namespace {

constexpr double kShortestTimeout = 0.1;  // Seconds.
constexpr double kLongestTimeout = 3600;  // Seconds.

constexpr const char* kFooter =
    "'pair' checks the code that the bridge shows (tarnlinkd --show-pairing-code) and remembers "
    "it\n"
    "for that host and port in $XDG_CONFIG_HOME/tarnlink/ctl.json, so that the other commands "
    "need\n"
    "no --code.\n"
    "Exit codes: 0 done, 1 no connection or no answer, 2 bad usage, 3 code wrong or not known,\n"
    "4 the bridge answered with an error.";

template <class Number>
std::optional<Number> parseWhole(std::string_view text, int base = 10) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string checkAppId(const std::string& text) {
  return parseAppId(text) ? "" : "must be 0 to 65535, or 0x0 to 0xFFFF: " + text;
}

std::string checkCount(const std::string& text) {
  // CLI11 takes "-1" for the largest unsigned number.
  return parseWhole<std::uint64_t>(text).value_or(0) > 0 ? "" : "must be a number above 0: " + text;
}

}  // namespace

std::optional<std::uint16_t> parseAppId(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    return parseWhole<std::uint16_t>(text.substr(2), 16);
  }
  return parseWhole<std::uint16_t>(text);
}

std::variant<CtlOptions, CtlEnd> parseCtlOptions(int argc, const char* const* argv) {
  CtlOptions options;
  CLI::App app("Command-line client of a Tarnlink bridge.", "tarnlinkctl");
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();  // the options below may follow the command too
  app.add_option("--host", options.host, "Name or address of the bridge")
      ->type_name("HOST")
      ->capture_default_str();
  app.add_option("--port", options.port, "TCP port of the bridge")
      ->check(CLI::Range(1, 65535))
      ->type_name("N")
      ->capture_default_str();
  app.add_option("--code", options.code, "Pairing code, in place of the remembered one")
      ->envname("TARNLINK_CODE")
      ->type_name("CODE");
  double timeout = std::chrono::duration<double>(options.timeout).count();
  app.add_option("--timeout", timeout, "Seconds to wait for an answer")
      ->check(CLI::Range(kShortestTimeout, kLongestTimeout))
      ->type_name("S")
      ->capture_default_str();
  app.add_flag("--json", options.json, "Print the bridge's events as they come, one a line");

  PairCommand pair;
  auto* pairApp = app.add_subcommand("pair", "Check a pairing code and remember it");
  pairApp->add_option("CODE", pair.code, "The six digits")->required()->type_name("");
  auto* pingApp = app.add_subcommand("ping", "Measure the time to the bridge and back");
  auto* interfacesApp = app.add_subcommand("interfaces", "List the bridge's Ethernet interfaces");
  SetInterfaceCommand setInterface;
  auto* setInterfaceApp =
      app.add_subcommand("set-interface", "Choose the interface for capture and publishing");
  setInterfaceApp->add_option("NAME", setInterface.name, "Interface name")
      ->required()
      ->type_name("");
  auto* subscribeApp = app.add_subcommand("subscribe", "Print messages as they arrive");
  subscribeApp->require_subcommand(1);
  auto* gooseApp = subscribeApp->add_subcommand("goose", "GOOSE messages, until interrupted");
  SubscribeGooseCommand subscribeGoose;
  std::string appId;
  auto* appIdOption = gooseApp->add_option("--app-id", appId, "Only this APPID (4096 or 0x1000)")
                          ->check(checkAppId)
                          ->type_name("N");
  gooseApp->add_option("--gocb-ref", subscribeGoose.goCBRef, "Only this control block")
      ->type_name("TEXT");
  gooseApp->add_option("--count", subscribeGoose.count, "End after so many messages")
      ->check(checkCount)
      ->type_name("N");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    std::ostringstream out;
    std::ostringstream errors;
    const bool isHelp = app.exit(end, out, errors) == 0;
    return CtlEnd{isHelp ? CtlExit::done : CtlExit::usage, isHelp ? out.str() : errors.str()};
  }
  options.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(timeout * 1000));
  if (*appIdOption) subscribeGoose.appId = parseAppId(appId);
  if (*pairApp) options.command = pair;
  if (*pingApp) options.command = PingCommand{};
  if (*interfacesApp) options.command = InterfacesCommand{};
  if (*setInterfaceApp) options.command = setInterface;
  if (*gooseApp) options.command = subscribeGoose;
  return options;
}

}  // namespace tarnlink
