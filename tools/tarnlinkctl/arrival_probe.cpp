#include "tools/tarnlinkctl/arrival_probe.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "tools/common/printing.h"

namespace tarnlink {

ArrivalProbe::ArrivalProbe(BridgeSession session, MessageKind silent, bool isFiltered)
    : session_(std::move(session)), silent_(silent), isFiltered_(isFiltered) {}

CtlResult<void> ArrivalProbe::look() {
  if (!std::exchange(hasSubscribed_, true)) {
    for (const char* command : {"subscribe_goose", "subscribe_sv"}) {
      if (auto sent = session_.send({{"cmd", command}}); !sent) return sent;
    }
  }
  while (true) {
    const auto event = session_.next(std::chrono::milliseconds(1));
    if (!event) return event.error();
    if (!*event) return {};
    if (auto taken = take(**event); !taken) return taken;
  }
}

// One message of a kind tells all; further ones, of which there may be thousands a second, are not
// asked for.
CtlResult<void> ArrivalProbe::take(const BridgeEvent& event) {
  if (event.name == "bridge_status") {
    const auto* active = findString(event.members, "activeInterface");
    if (active && !active->empty()) interface_ = printable(*active);
  } else if (event.name == "goose_message" && !std::exchange(hasGoose_, true)) {
    return session_.send({{"cmd", "unsubscribe_goose"}});
  } else if (event.name == "sv_apdu" && !std::exchange(hasSampledValues_, true)) {
    return session_.send({{"cmd", "unsubscribe_sv"}});
  }
  return {};
}

std::string ArrivalProbe::finding() const {
  const bool isGoose = silent_ == MessageKind::goose;
  if (isFiltered_ && (isGoose ? hasGoose_ : hasSampledValues_)) {
    return std::string("others arrive on ") + interface_ + " than --app-id" +
           (isGoose ? " and --gocb-ref let" : " lets") + " through";
  }
  if (isGoose ? hasSampledValues_ : hasGoose_) {
    return std::string("only ") + (isGoose ? "Sampled Values" : "GOOSE messages") + " arrive on " +
           interface_ + "; see 'tarnlinkctl subscribe " + (isGoose ? "sv" : "goose") + "'";
  }
  return "nothing arrives on " + interface_ + ", neither GOOSE nor Sampled Values; 'tarnlinkctl " +
         "interfaces' lists the others";
}

}  // namespace tarnlink
