#include "app/desktop/desktop_options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "protocol/bridge_event_encoder.h"

namespace tarnlink {
namespace {

using Texts = std::vector<std::string>;

// QApplication takes these, with one hyphen or two; those of the second list have a value.
constexpr std::string_view kQtFlags[] = {"reverse", "nograb", "dograb", "sync", "widgetcount"};
constexpr std::string_view kQtOptions[] = {
    "platform",     "platformpluginpath", "platformtheme",
    "plugin",       "qwindowgeometry",    "qwindowicon",
    "qwindowtitle", "qmljsdebugger",      "session",
    "display",      "geometry",           "style",
    "stylesheet",
};

bool isIn(const auto& list, std::string_view name) {
  return std::find(std::begin(list), std::end(list), name) != std::end(list);
}

// In reverse order, as CLI11 takes them.
Texts withoutQtOptions(int argc, const char* const* argv) {
  Texts kept;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    const auto name = word.substr(std::min(word.find_first_not_of('-'), word.size()));
    const auto hyphens = word.size() - name.size();
    const bool isQt = hyphens == 1 || hyphens == 2;
    if (isQt && isIn(kQtFlags, name)) continue;
    if (isQt && isIn(kQtOptions, name)) {
      ++i;
    } else if (!isQt || !isIn(kQtOptions, name.substr(0, name.find('=')))) {
      kept.emplace_back(word);
    }
  }
  std::reverse(kept.begin(), kept.end());
  return kept;
}

void append(Texts& arguments, const std::string& name, const Texts& values = {}) {
  arguments.push_back(name);
  arguments.insert(arguments.end(), values.begin(), values.end());
}

// What was given, as it was given: the bridge reads it once more.
Texts bridgeArguments(const std::vector<const CLI::Option*>& options) {
  Texts arguments;
  const auto isGiven = [&options](std::string_view name) {
    return std::any_of(options.begin(), options.end(), [name](const CLI::Option* option) {
      return option->get_name() == name && option->count() > 0;
    });
  };
  for (const auto* option : options) {
    const auto name = option->get_name();
    if (option->count() == 0 || name == "--port" || name == "--auth-delay") continue;
    append(arguments, name, option->get_expected_max() == 0 ? Texts() : option->results());
  }
  if (!isGiven("--allow-origin")) append(arguments, "--allow-origin", {"*://localhost:*"});
  if (!isGiven("--max-clients")) append(arguments, "--max-clients", {"64"});
  append(arguments, "--auth-delay");
  return arguments;
}

}  // namespace

std::variant<DesktopOptions, ExitCode> parseDesktopOptions(int argc, const char* const* argv) {
  DesktopOptions options;
  CLI::App app("tarnlink - the Tarnlink bridge with an icon in the status bar", "tarnlink");
  app.footer("Options of the user interface library, such as -platform, are taken too.");
  addServiceOptions(app, options.bridge);
  auto& service = std::as_const(app);
  const auto passedOn =
      service.get_options([](const CLI::Option* option) { return option->get_name() != "--help"; });
  app.set_version_flag("--version", "tarnlink " + std::string(BridgeEventEncoder::appVersion()));
  app.add_option_function<std::string>(
         "--language",
         [&options](const std::string& name) {
           options.language = name == "de" ? Language::german : Language::english;
         },
         "Language of menu and alerts instead of the session's")
      ->type_name("LANGUAGE")
      ->check(CLI::IsMember({"de", "en"}));
  try {
    app.parse(withoutQtOptions(argc, argv));
  } catch (const CLI::ParseError& error) {
    return ExitCode{app.exit(error) == 0 ? 0 : kExitUsage};
  }
  options.bridgeArguments = bridgeArguments(passedOn);
  return options;
}

}  // namespace tarnlink
