// Subscriptions: messages are printed until their number or an interrupt ends it.
#include "tools/tarnlinkctl/ctl_run.h"
#include "tools/tarnlinkctl/printing.h"

namespace tarnlink {

CtlResult<void> CtlRun::operator()(const SubscribeGooseCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  messagesLeft_ = command.count;
  const auto status = ask(*session, commandText(command), {"bridge_status"});
  if (!status) return status.error();
  if (options_.json) {
    print(status->text);
  } else {
    errors_ << "subscribed on " << activeInterfaceOf(*status) << std::endl;
  }
  return printMessages(*session);
}

CtlResult<void> CtlRun::operator()(const SubscribeSvCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  messagesLeft_ = command.count;
  if (const auto sent = send(*session, commandText(command)); !sent) return sent.error();
  const auto confirmed =
      confirm(*session, [this](const BridgeEvent& event) { showMessage(event); });
  if (!confirmed) return confirmed.error();
  if (!options_.json) errors_ << "subscribed" << std::endl;
  return printMessages(*session);
}

void CtlRun::showMessage(const BridgeEvent& event) {
  const bool isGoose = event.name == "goose_message";
  const bool isMessage = isGoose || event.name == "sv_apdu";
  if (isMessage && messagesLeft_ == 0) return;
  if (options_.json) {
    print(event.text);
  } else if (const auto* message = event.members.find("message"); isGoose && message) {
    if (const auto* fields = message->as<JsonObject>()) print(gooseLine(*fields));
  } else if (isMessage) {
    print(svLine(event.members));
  } else if (event.name == "error") {
    errors_ << "tarnlinkctl: " << errorOf(event).text << std::endl;
  }
  if (isMessage && messagesLeft_) --*messagesLeft_;
}

CtlResult<void> CtlRun::printMessages(BridgeSession& session) {
  while (!interrupted_ && messagesLeft_ != 0) {
    const auto event = session.next(kInterruptCheck);
    if (!event) return event.error();
    if (*event) showMessage(**event);
  }
  session.close();
  return {};
}

}  // namespace tarnlink
