// What arrives at a bridge while a subscription hears nothing.
#pragma once

#include <optional>
#include <string>

#include "tools/tarnlinkctl/bridge_session.h"

namespace tarnlink {

/// Subscribes without a filter, on a session of its own and for as long as it lives: when it goes,
/// so do the captures that nobody else wanted. One thread.
class ArrivalProbe {
 public:
  /// The silent subscription's kind, and whether it lets only some messages through.
  ArrivalProbe(BridgeSession session, MessageKind silent, bool isFiltered);

  /// Takes in what has come; waits a millisecond at most for it.
  CtlResult<void> look();

  /// What it has seen, for people: "nothing arrives on bus0 ...".
  std::string finding() const;

 private:
  CtlResult<void> take(const BridgeEvent& event);

  BridgeSession session_;
  const MessageKind silent_;
  const bool isFiltered_;
  bool hasSubscribed_ = false;
  bool hasGoose_ = false;
  bool hasSampledValues_ = false;
  std::string interface_ = "its interface";
};

}  // namespace tarnlink
