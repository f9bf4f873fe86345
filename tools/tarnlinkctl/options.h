// The command line of tarnlinkctl. Commands of the protocol are made here: what is not given is
// left out, for the bridge knows its own defaults.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "client/bridge_client.h"
#include "tools/common/command_line.h"

namespace tarnlink {

/// Exit codes of the program; --help lists them.
enum class CtlExit {
  done = 0,
  connection = 1,      ///< No bridge there, the connection dropped, or no answer in time.
  usage = 2,           ///< The command line is wrong.
  authentication = 3,  ///< The pairing code is wrong, or none is known.
  refused = 4,         ///< The bridge answered with an error.
};

struct PairCommand {
  std::string code;
};
struct PingCommand {};
struct InterfacesCommand {};
struct SetInterfaceCommand {
  std::string name;
  bool force = false;  ///< Also one that the bridge does not list.
};
enum class MessageKind { goose, sampledValues };
struct SubscribeCommand {
  MessageKind kind;
  BridgeClient::Command request;
  std::optional<std::uint64_t> count;  ///< End after so many messages.
};
/// A GOOSE publication begins or ends.
struct PublishCommand {
  BridgeClient::Command request;
  std::string done;  ///< What then has happened, for people.
};
struct PublishSvCommand {
  BridgeClient::Command request;
  std::size_t octets = 0;  ///< That follow the EtherType.
  std::uint64_t count = 1;
  std::int64_t interval = 1'000;  ///< Milliseconds between two frames.
};
struct DiscoverCommand {
  std::chrono::milliseconds wait{2'000};
};
using CtlCommand =
    std::variant<PairCommand, PingCommand, InterfacesCommand, SetInterfaceCommand, SubscribeCommand,
                 PublishCommand, PublishSvCommand, DiscoverCommand>;

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

std::variant<CtlOptions, CommandLineEnd> parseCtlOptions(int argc, const char* const* argv);

}  // namespace tarnlink
