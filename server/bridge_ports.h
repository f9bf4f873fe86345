// What the server needs of its surroundings.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "goosestack/goose_message.h"
#include "goosestack/log_sink.h"
#include "goosestack/network_interface_info.h"
#include "goosestack/publishing.h"
#include "goosestack/record_source.h"
#include "goosestack/sv_records.h"
#include "platform/preference_store.h"
#include "server/auth_gate.h"
#include "server/service_advertiser.h"
#include "server/vlan_setup.h"
#include "websocket/websocket.h"

namespace tarnlink {

/// References outlive the server.
struct BridgePorts {
  WebSocketTransport& transport;
  PreferenceStore& preferences;
  goosestack::LogSink log;
  std::function<std::shared_ptr<goosestack::RecordSource<goosestack::GooseMessage>>()>
      makeGooseReceiver;
  std::function<std::shared_ptr<goosestack::RecordSource<goosestack::SvCapturedFrame>>()>
      makeSvReceiver;
  std::function<std::shared_ptr<goosestack::GoosePublishing>()> makeGoosePublisher;
  std::function<std::shared_ptr<goosestack::SvPublishing>()> makeSvPublisher;
  std::function<std::shared_ptr<VlanSetup>()> makeVlanSetup;
  /// One thread for work that waits for people or tools: VLAN set-up runs here.
  boost::asio::any_io_executor hostExecutor;
  /// Lists the machine's Ethernet interfaces. With display names it may block for a while.
  enum class Names { fallback, display };
  std::function<std::vector<goosestack::NetworkInterfaceInfo>(Names)> listInterfaces;
  /// Where listInterfaces runs when it may block, and where preferences are read and written.
  boost::asio::any_io_executor blockingExecutor;
  AdvertiserFactory makeAdvertiser;  ///< Empty: the bridge is not announced.
  /// Between two tries to open an interface whose capture has died.
  std::chrono::milliseconds recoveryPause{5'000};
  /// Nothing: wrong pairing codes meet neither delay nor lockout.
  std::optional<AuthDelay> authDelay = std::nullopt;
  /// Taken by `auth` like the pairing code, but at once: the program that started this one need not
  /// queue behind guessers. Too long to be guessed. Its client is told each interface that the
  /// bridge chooses by itself. Empty: there is none.
  std::string ownerToken = {};
  /// Gives back what piles up while clients are slow: called every memoryPause while any is
  /// connected, and once after the last has left. Empty: never.
  std::function<void()> returnFreeMemory = {};
  std::chrono::milliseconds memoryPause{2'000};
};

}  // namespace tarnlink
