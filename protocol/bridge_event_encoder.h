// Every event that the bridge sends to a client: one compact JSON object a text message.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "goosestack/goose_message.h"
#include "goosestack/network_interface_info.h"
#include "goosestack/sv_records.h"
#include "goosestack/time_point.h"
#include "protocol/bridge_command.h"
#include "protocol/json_writer.h"

namespace tarnlink {

/// What the status event tells beside the version.
struct BridgeStatus {
  bool isCapturing = false;     ///< GOOSE capture running.
  std::string activeInterface;  ///< May be empty.
  std::int64_t messagesReceived = 0;
  std::int64_t messagesPublished = 0;
};

/// Stateless: safe from any thread. No function fails; an event that JSON cannot carry (text that
/// is not UTF-8, a float that is not finite) becomes kEncodeFailed.
class BridgeEventEncoder {
 public:
  BridgeEventEncoder() = delete;

  static constexpr char kEncodeFailed[] =
      "{\"event\":\"error\",\"error\":\"JSON encode failed\",\"code\":-1}";
  /// Version of the command and event protocol.
  static constexpr int kProtocol = 2;

  /// The version of the program, "dev" where the build names none.
  static std::string_view appVersion();

  static std::string authResult(bool ok);
  /// The reason is for whoever asks with a request id; empty: none.
  static std::string error(std::string_view message, std::int64_t code,
                           std::string_view reason = {});
  static std::string pong(std::int64_t originalTimestamp,
                          goosestack::TimePoint now = goosestack::timeNow());
  static std::string interfaces(const std::vector<goosestack::NetworkInterfaceInfo>& interfaces,
                                std::string_view activeInterface);
  static std::string bridgeStatus(const BridgeStatus& status);
  /// For a command that has no other answer.
  static std::string done() { return "{\"event\":\"done\"}"; }
  static std::string svApdu(const goosestack::SvCapturedFrame& frame);

  /// The event as the answer to the command with that mark.
  static std::string marked(std::string event, const RequestId& id);

  /// The events of captured traffic, written into an empty writer whose storage is then handed on
  /// without a copy.
  static void gooseMessage(const goosestack::GooseMessage& message, JsonWriter& out);
  static void svApdu(const goosestack::SvCapturedFrame& frame, JsonWriter& out);
};

}  // namespace tarnlink
