// The command line of tarnlinkctl.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "goosestack/bytes.h"
#include "goosestack/goose_data_value.h"

namespace tarnlink {

/// Exit codes of the program; --help lists them.
enum class CtlExit {
  done = 0,
  connection = 1,      ///< No bridge there, the connection dropped, or no answer in time.
  usage = 2,           ///< The command line is wrong.
  authentication = 3,  ///< The pairing code is wrong, or none is known.
  refused = 4,         ///< The bridge answered with an error.
};

/// Of publications that name none. Any will do: receivers compare it, switches do not.
inline constexpr std::uint16_t kDefaultGooseAppId = 0x1000;

struct PairCommand {
  std::string code;
};
struct PingCommand {};
struct InterfacesCommand {};
struct SetInterfaceCommand {
  std::string name;
  bool force = false;  ///< Also one that the bridge does not list.
};
struct SubscribeGooseCommand {
  std::optional<std::uint16_t> appId;
  std::optional<std::string> goCBRef;
  std::optional<std::uint64_t> count;  ///< End after so many messages.
};
struct SubscribeSvCommand {
  std::optional<std::int64_t> appId;
  std::optional<std::uint64_t> count;
};
/// What is absent is the bridge's to choose.
struct PublishCommand {
  std::uint16_t appId = kDefaultGooseAppId;
  std::string goCBRef;
  std::optional<std::string> dataSetRef;  ///< Absent: derived from goCBRef.
  std::uint32_t confRev = 1;
  std::optional<std::string> goId;
  std::optional<std::string> interface;
  std::optional<std::int64_t> vlanId;
  std::optional<std::int64_t> vlanPriority;
  std::optional<std::string> dstMac;
  std::optional<std::string> srcMac;
  std::optional<std::string> profile;
  std::optional<std::int64_t> timeAllowedToLive;  ///< Milliseconds.
  bool test = false;
  bool needsCommission = false;
  std::optional<std::int64_t> stNum;
  std::optional<std::int64_t> sqNum;
  bool lockStNum = false;
  bool lockSqNum = false;
  std::vector<goosestack::GooseDataValue> values;
};
struct UnpublishCommand {
  std::optional<std::string> goCBRef;  ///< Absent: whatever runs.
};
struct PublishSvCommand {
  goosestack::Bytes payload;  ///< All that follows the EtherType.
  std::optional<std::string> interface;
  std::optional<std::string> dstMac;
  std::optional<std::int64_t> vlanId;
  std::optional<std::int64_t> vlanPriority;
  std::uint64_t count = 1;
  std::chrono::milliseconds interval{1'000};  ///< Between two frames.
};
struct DiscoverCommand {
  std::chrono::milliseconds wait{2'000};
};
using CtlCommand = std::variant<PairCommand, PingCommand, InterfacesCommand, SetInterfaceCommand,
                                SubscribeGooseCommand, SubscribeSvCommand, PublishCommand,
                                UnpublishCommand, PublishSvCommand, DiscoverCommand>;

struct CtlOptions {
  std::string host = "127.0.0.1";
  std::uint16_t port = 8765;
  bool isPortGiven = false;
  /// Where to connect to, the best first; empty: `host`, which people and codes know the bridge by.
  std::vector<std::string> addresses;
  std::optional<std::string> code;  ///< From --code or TARNLINK_CODE.
  std::chrono::milliseconds timeout{5'000};
  bool json = false;
  CtlCommand command;
};

/// The program has nothing more to do: help was asked for, or the command line is wrong.
struct CtlEnd {
  CtlExit exit;
  std::string text;  ///< For standard output with CtlExit::done, else for standard error.
};

std::variant<CtlOptions, CtlEnd> parseCtlOptions(int argc, const char* const* argv);

/// Decimal, or hexadecimal after 0x, within 16 bits.
std::optional<std::uint16_t> parseAppId(std::string_view text);

}  // namespace tarnlink
