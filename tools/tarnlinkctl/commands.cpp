#include "tools/tarnlinkctl/commands.h"

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "platform/preference_store.h"
#include "server/json_writer.h"
#include "tools/tarnlinkctl/bridge_session.h"
#include "tools/tarnlinkctl/printing.h"

namespace tarnlink {
namespace {

using Clock = std::chrono::steady_clock;

// How long an interrupt goes unnoticed at most.
constexpr std::chrono::milliseconds kInterruptCheck{200};

/// {"cmd":NAME and then texts by key.
class CommandText {
 public:
  explicit CommandText(std::string_view name) {
    writer_.literal("{\"cmd\":");
    writer_.string(name);
  }
  CommandText& text(std::string_view key, std::string_view value) {
    member(key);
    writer_.string(value);
    return *this;
  }
  CommandText& integer(std::string_view key, std::int64_t value) {
    member(key);
    auto run = writer_.begin(JsonRun::kMaxInteger);
    run.integer(value);
    writer_.end(run);
    return *this;
  }
  CtlResult<std::string> end() {
    writer_.literal("}");
    if (writer_.failed()) return CtlError{CtlExit::usage, "an argument is not UTF-8"};
    return std::string(writer_.text());
  }

 private:
  void member(std::string_view key) {
    writer_.literal(",");
    writer_.string(key);
    writer_.literal(":");
  }
  JsonWriter writer_;
};

/// One run of the program.
class Run {
 public:
  Run(const CtlOptions& options, std::ostream& out, std::ostream& errors,
      const std::atomic<bool>& interrupted)
      : options_(options), out_(out), errors_(errors), interrupted_(interrupted) {}

  CtlResult<void> operator()(const PairCommand& command);
  CtlResult<void> operator()(const PingCommand& command);
  CtlResult<void> operator()(const InterfacesCommand& command);
  CtlResult<void> operator()(const SetInterfaceCommand& command);
  CtlResult<void> operator()(const SubscribeGooseCommand& command);

 private:
  std::unique_ptr<PreferenceStore> rememberedCodes();
  CtlResult<BridgeSession> authenticated();
  CtlResult<BridgeEvent> ask(BridgeSession& session, CommandText command,
                             std::initializer_list<std::string_view> answers);
  CtlResult<void> printMessages(BridgeSession& session, std::optional<std::uint64_t> count);
  void print(const std::string& line) { out_ << line << std::endl; }

  const CtlOptions& options_;
  std::ostream& out_;
  std::ostream& errors_;
  const std::atomic<bool>& interrupted_;
  bool storeFailed_ = false;
};

std::unique_ptr<PreferenceStore> Run::rememberedCodes() {
  return makePreferenceStore(defaultPreferenceFile().replace_filename("ctl.json"),
                             [this](std::string_view line) {
                               storeFailed_ = true;
                               errors_ << line << std::endl;
                             });
}

CtlResult<BridgeSession> Run::authenticated() {
  const auto code =
      options_.code ? options_.code : rememberedCodes()->read(bridgeAddress(options_));
  auto session = BridgeSession::connect(options_);
  if (!session) return session;
  if (!code) {
    return CtlError{CtlExit::authentication,
                    "no pairing code known for " + bridgeAddress(options_) +
                        ": run 'tarnlinkctl pair CODE' once, or give --code"};
  }
  if (const auto accepted = session->authenticate(*code); !accepted) return accepted.error();
  return session;
}

CtlResult<BridgeEvent> Run::ask(BridgeSession& session, CommandText command,
                                std::initializer_list<std::string_view> answers) {
  const auto text = command.end();
  if (!text) return text.error();
  if (const auto sent = session.send(*text); !sent) return sent.error();
  return session.answer(answers);
}

CtlResult<void> Run::operator()(const PairCommand& command) {
  auto session = BridgeSession::connect(options_);
  if (!session) return session.error();
  const auto accepted = session->authenticate(command.code);
  if (!accepted) return accepted.error();
  session->close();
  rememberedCodes()->write(bridgeAddress(options_), command.code);
  if (storeFailed_) return CtlError{CtlExit::connection, "the code is right but was not stored"};
  const auto* version = accepted->members.string("version");
  print(options_.json ? accepted->text
                      : "paired with " + bridgeAddress(options_) + ", version " +
                            (version ? printable(*version) : "unknown"));
  return {};
}

CtlResult<void> Run::operator()(const PingCommand&) {
  auto session = BridgeSession::connect(options_);
  if (!session) return session.error();
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto stamp = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const auto begin = Clock::now();
  const auto pong =
      ask(*session, std::move(CommandText("ping").integer("timestamp", stamp)), {"pong"});
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
  if (!pong) return pong.error();
  session->close();
  print(options_.json ? pong->text
                      : "pong from " + bridgeAddress(options_) + " in " +
                            std::to_string(took.count()) + " us");
  return {};
}

CtlResult<void> Run::operator()(const InterfacesCommand&) {
  auto session = authenticated();
  if (!session) return session.error();
  const auto event = ask(*session, CommandText("get_interfaces"), {"interfaces"});
  if (!event) return event.error();
  session->close();
  if (options_.json) {
    print(event->text);
    return {};
  }
  const auto* active = event->members.string("activeInterface");
  if (const auto* interfaces = event->members.array("interfaces")) {
    for (const auto& interface : *interfaces) {
      if (const auto* members = interface.as<JsonObject>()) {
        print(interfaceLine(*members, active ? *active : ""));
      }
    }
  }
  return {};
}

CtlResult<void> Run::operator()(const SetInterfaceCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  auto status =
      ask(*session, std::move(CommandText("set_interface").text("interface", command.name)),
          {"bridge_status"});
  // Other clients' doings are broadcast too.
  while (status) {
    const auto* active = status->members.string("activeInterface");
    if (active && *active == command.name) break;
    status = session->answer({"bridge_status"});
  }
  if (!status) return status.error();
  session->close();
  print(options_.json ? status->text : "active interface: " + printable(command.name));
  return {};
}

CtlResult<void> Run::operator()(const SubscribeGooseCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  CommandText text("subscribe_goose");
  if (command.appId) text.text("appIdFilter", std::to_string(*command.appId));
  if (command.goCBRef) text.text("goCBRefFilter", *command.goCBRef);
  const auto status = ask(*session, std::move(text), {"bridge_status"});
  if (!status) return status.error();
  if (options_.json) {
    print(status->text);
  } else {
    const auto* active = status->members.string("activeInterface");
    errors_ << "subscribed on " << (active ? printable(*active) : "?") << std::endl;
  }
  return printMessages(*session, command.count);
}

CtlResult<void> Run::printMessages(BridgeSession& session, std::optional<std::uint64_t> count) {
  while (!interrupted_ && count != 0) {
    auto event = session.next(kInterruptCheck);
    if (!event) return event.error();
    if (!*event) continue;
    const auto& members = (*event)->members;
    const bool isMessage = (*event)->name == "goose_message";
    if (options_.json) {
      print((*event)->text);
    } else if (const auto* message = members.find("message"); isMessage && message) {
      if (const auto* fields = message->as<JsonObject>()) print(gooseLine(*fields));
    } else if ((*event)->name == "error") {
      errors_ << "tarnlinkctl: " << errorOf(**event).text << std::endl;
    }
    if (isMessage && count) --*count;
  }
  session.close();
  return {};
}

}  // namespace

CtlExit runCtl(const CtlOptions& options, std::ostream& out, std::ostream& errors,
               const std::atomic<bool>& interrupted) {
  Run run(options, out, errors, interrupted);
  const auto result = std::visit(run, options.command);
  if (result) return CtlExit::done;
  errors << "tarnlinkctl: " << result.error().text << std::endl;
  return result.error().exit;
}

}  // namespace tarnlink
