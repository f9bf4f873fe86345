// The command line of tarnlinkctl.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

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
};
struct SubscribeGooseCommand {
  std::optional<std::uint16_t> appId;
  std::optional<std::string> goCBRef;
  std::optional<std::uint64_t> count;  ///< End after so many messages.
};
using CtlCommand = std::variant<PairCommand, PingCommand, InterfacesCommand, SetInterfaceCommand,
                                SubscribeGooseCommand>;

struct CtlOptions {
  std::string host = "127.0.0.1";
  std::uint16_t port = 8765;
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
