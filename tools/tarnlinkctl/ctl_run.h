// One run of tarnlinkctl: what the subcommands share.
#pragma once

#include <atomic>
#include <boost/system/result.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "platform/preference_store.h"
#include "tools/tarnlinkctl/arrival_probe.h"
#include "tools/tarnlinkctl/bridge_session.h"
#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// How long an interrupt goes unnoticed at most.
inline constexpr std::chrono::milliseconds kInterruptCheck{200};

/// Visits the command. Blocking; one thread. What it is made with must live as long.
class CtlRun {
 public:
  CtlRun(const CtlOptions& options, std::ostream& out, std::ostream& errors,
         const std::atomic<bool>& interrupted)
      : options_(options), out_(out), errors_(errors), interrupted_(interrupted) {}

  CtlResult<void> operator()(const DiscoverCommand& command);
  CtlResult<void> operator()(const PairCommand& command);
  CtlResult<void> operator()(const PingCommand& command);
  CtlResult<void> operator()(const InterfacesCommand& command);
  CtlResult<void> operator()(const SetInterfaceCommand& command);
  CtlResult<void> operator()(const SubscribeCommand& command);
  CtlResult<void> operator()(const PublishCommand& command);
  CtlResult<void> operator()(const PublishSvCommand& command);

 private:
  std::unique_ptr<PreferenceStore> rememberedCodes();
  CtlResult<BridgeSession> authenticated();
  CtlResult<void> waitUntil(BridgeSession::Clock::time_point deadline, BridgeSession& session);
  void showMessage(const BridgeEvent& event);
  CtlResult<void> printMessages(BridgeSession& session, const SubscribeCommand& command);
  void print(const std::string& line) { out_ << line << std::endl; }

  const CtlOptions& options_;
  std::ostream& out_;
  std::ostream& errors_;
  const std::atomic<bool>& interrupted_;
  bool storeFailed_ = false;
  bool hasMessage_ = false;                    ///< A subscription has heard something.
  std::optional<std::uint64_t> messagesLeft_;  ///< Of a subscription; absent: no end.
};

/// The interface that a "bridge_status" event calls active, for people.
std::string activeInterfaceOf(const BridgeEvent& status);

}  // namespace tarnlink
