#include "tools/tarnlinkctl/commands.h"

#include <nlohmann/json.hpp>
#include <utility>
#include <variant>
#include <vector>

#include "tools/common/printing.h"
#include "tools/tarnlinkctl/ctl_run.h"
#include "tools/tarnlinkctl/discover.h"

namespace tarnlink {
namespace {

using Clock = BridgeSession::Clock;

CtlResult<void> runCommand(const CtlOptions& options, std::ostream& out, std::ostream& errors,
                           const std::atomic<bool>& interrupted) {
  const auto located = locateBridge(options);
  if (!located) return located.error();
  CtlRun run(*located, out, errors, interrupted);
  return std::visit(run, located->command);
}

std::vector<const Json*> interfacesOf(const BridgeEvent& event) {
  std::vector<const Json*> found;
  if (const auto* interfaces = findArray(event.members, "interfaces")) {
    for (const auto& interface : *interfaces) {
      if (interface.is_object()) found.push_back(&interface);
    }
  }
  return found;
}

}  // namespace

std::string activeInterfaceOf(const BridgeEvent& status) {
  const auto* active = findString(status.members, "activeInterface");
  return active && !active->empty() ? printable(*active) : "no interface yet";
}

std::unique_ptr<PreferenceStore> CtlRun::rememberedCodes() {
  return makePreferenceStore(defaultPreferenceFile().replace_filename("ctl.json"),
                             [this](std::string_view line) {
                               storeFailed_ = true;
                               errors_ << line << std::endl;
                             });
}

CtlResult<BridgeSession> CtlRun::authenticated() {
  const auto code =
      options_.code ? options_.code : rememberedCodes()->read(bridgeAddress(options_));
  auto session = BridgeSession::connect(options_);
  if (!session) return session;
  if (!code) {
    return CtlError{CtlExit::authentication,
                    "no pairing code known for " + bridgeAddress(options_) +
                        ": run 'tarnlinkctl pair CODE' once, or give --code\n  'tarnlinkd "
                        "--show-pairing-code' prints it on the bridge's computer."};
  }
  if (const auto accepted = session->authenticate(*code); !accepted) return accepted.error();
  return session;
}

CtlResult<void> CtlRun::operator()(const DiscoverCommand& command) {
  const auto bridges = discoverBridges(command.wait);
  if (!bridges) return bridges.error();
  for (const auto& bridge : *bridges) {
    print(options_.json ? bridgeJson(bridge) : bridgeLine(bridge));
  }
  if (bridges->empty()) errors_ << "no bridge found" << std::endl;
  return {};
}

CtlResult<void> CtlRun::operator()(const PairCommand& command) {
  auto session = BridgeSession::connect(options_);
  if (!session) return session.error();
  const auto accepted = session->authenticate(command.code);
  if (!accepted) return accepted.error();
  session->close();
  rememberedCodes()->write(bridgeAddress(options_), command.code);
  if (storeFailed_) {
    return CtlError{CtlExit::connection,
                    "the code is right but was not stored\n  Give it each time, with --code or in "
                    "TARNLINK_CODE, or make that file writable."};
  }
  const auto* version = findString(accepted->members, "version");
  print(options_.json ? accepted->text
                      : "paired with " + bridgeAddress(options_) + ", version " +
                            (version ? printable(*version) : "unknown"));
  return {};
}

CtlResult<void> CtlRun::operator()(const PingCommand&) {
  auto session = BridgeSession::connect(options_);
  if (!session) return session.error();
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto stamp = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const auto begin = Clock::now();
  const auto pong = session->ask({{"cmd", "ping"}, {"timestamp", stamp}}, "pong");
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
  if (!pong) return pong.error();
  session->close();
  print(options_.json ? pong->text
                      : "pong from " + bridgeAddress(options_) + " in " +
                            std::to_string(took.count()) + " us");
  return {};
}

CtlResult<void> CtlRun::operator()(const InterfacesCommand&) {
  auto session = authenticated();
  if (!session) return session.error();
  const auto event = session->ask({{"cmd", "get_interfaces"}}, "interfaces");
  if (!event) return event.error();
  session->close();
  if (options_.json) {
    print(event->text);
    return {};
  }
  const auto* active = findString(event->members, "activeInterface");
  for (const auto* interface : interfacesOf(*event)) {
    print(interfaceLine(*interface, active ? *active : ""));
  }
  return {};
}

CtlResult<void> CtlRun::operator()(const SetInterfaceCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  if (!command.force) {
    const auto known = session->ask({{"cmd", "get_interfaces"}}, "interfaces");
    if (!known) return known.error();
    std::string names;
    bool isThere = false;
    for (const auto* interface : interfacesOf(*known)) {
      const auto* name = findString(*interface, "name");
      if (!name) continue;
      isThere = isThere || *name == command.name;
      names += "\n  " + printable(*name);
    }
    if (!isThere) {
      return CtlError{CtlExit::usage,
                      "the bridge has no interface '" + printable(command.name) + "'; " +
                          (names.empty() ? "it has none at all" : "there are:" + names) +
                          "\n--force chooses it nevertheless, for when it comes."};
    }
  }
  BridgeEvent status;  // Told to all, and so no answer of its own where requests have numbers.
  const auto answer =
      session->ask({{"cmd", "set_interface"}, {"interface", command.name}}, "bridge_status",
                   [&status](const BridgeEvent& event) { status = event; });
  if (!answer) return answer.error();
  session->close();
  print(options_.json ? (status.text.empty() ? answer->text : status.text)
                      : "active interface: " + printable(command.name));
  return {};
}

bool runsUntilInterrupted(const CtlCommand& command) {
  return std::holds_alternative<SubscribeCommand>(command) ||
         std::holds_alternative<PublishSvCommand>(command);
}

CtlExit runCtl(const CtlOptions& options, std::ostream& out, std::ostream& errors,
               const std::atomic<bool>& interrupted) {
  const auto result = runCommand(options, out, errors, interrupted);
  if (result) return CtlExit::done;
  errors << "tarnlinkctl: " << result.error().text << std::endl;
  return result.error().exit;
}

}  // namespace tarnlink
