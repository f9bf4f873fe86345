// Subscriptions: messages are printed until their number or an interrupt ends it.
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/common/printing.h"
#include "tools/tarnlinkctl/arrival_probe.h"
#include "tools/tarnlinkctl/ctl_run.h"

namespace tarnlink {
namespace {

using std::chrono::seconds;

// A subscription that has heard nothing for so long is told why.
constexpr seconds kSilence{5};
// The last part of that, in which another session looks what arrives: as long as a publisher's
// pause may be at most of the profiles in use, and short enough for those that do send.
constexpr seconds kProbing{3};

}  // namespace

CtlResult<void> CtlRun::operator()(const SubscribeCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  messagesLeft_ = command.count;
  const auto show = [this](const BridgeEvent& event) { showMessage(event); };
  if (command.kind == MessageKind::goose) {
    const auto status = session->ask(command.request, "bridge_status", show);
    if (!status) return status.error();
    if (options_.json) {
      print(status->text);
    } else {
      errors_ << "subscribed on " << activeInterfaceOf(*status) << std::endl;
    }
  } else {
    if (const auto sent = session->send(command.request); !sent) return sent.error();
    // Commands are served in their order: a refusal would come before this pong.
    const auto served = session->ask({{"cmd", "ping"}}, "pong", show);
    if (!served) return served.error();
    if (!options_.json) errors_ << "subscribed" << std::endl;
  }
  return printMessages(*session, command);
}

void CtlRun::showMessage(const BridgeEvent& event) {
  const bool isGoose = event.name == "goose_message";
  const bool isMessage = isGoose || event.name == "sv_apdu";
  if (isMessage && messagesLeft_ == 0) return;
  if (options_.json) {
    print(event.text);
  } else if (const auto* message = findMember(event.members, "message"); isGoose && message) {
    if (message->is_object()) print(gooseLine(*message));
  } else if (isMessage) {
    print(svLine(event.members));
  } else if (event.name == "error") {
    errors_ << "tarnlinkctl: " << errorOf(event).text << std::endl;
  }
  if (isMessage) hasMessage_ = true;
  if (isMessage && messagesLeft_) --*messagesLeft_;
}

CtlResult<void> CtlRun::printMessages(BridgeSession& session, const SubscribeCommand& command) {
  const auto start = BridgeSession::Clock::now();
  std::optional<ArrivalProbe> probe;
  bool hasProbed = false;
  bool isExplained = false;
  while (!interrupted_ && messagesLeft_ != 0) {
    const auto event = session.next(kInterruptCheck);
    if (!event) return event.error();
    if (*event) showMessage(**event);
    if (isExplained) continue;

    const auto silence = BridgeSession::Clock::now() - start;
    if (!hasMessage_ && silence >= kSilence - kProbing && !std::exchange(hasProbed, true)) {
      if (auto second = authenticated())
        probe.emplace(std::move(*second), command.kind, command.request.size() > 1);
    }
    if (probe && !probe->look()) probe.reset();
    isExplained = hasMessage_ || silence >= kSilence;
    if (!isExplained) continue;
    if (!hasMessage_) {
      errors_ << "no message for " << kSilence.count() << " s"
              << (probe ? ": " + probe->finding() : "") << std::endl;
    }
    probe.reset();
  }
  session.close();
  return {};
}

}  // namespace tarnlink
