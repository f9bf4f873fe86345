// What a command ends in.
#pragma once

#include <boost/system/result.hpp>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarnlink {

/// A command that was not executed.
struct CommandError {
  std::int64_t code;    ///< One of ErrorCode.
  std::string message;  ///< For people.
  std::string reason;   ///< Which member, and what was expected; or what the system said.

  /// Of a failure that the system or the stack has described.
  static CommandError because(std::string description, std::int64_t code,
                              std::string_view beginning);
};

/// Of a text that is no interface name.
CommandError invalidInterfaceName(std::string_view text);

/// Lets Reply::value() throw; found by Boost through argument-dependent look-up.
[[noreturn]] void throw_exception_from_error(const CommandError& error,
                                             const boost::source_location& location);

/// The event that answers the command; empty for a command that has none.
using Reply = boost::system::result<std::string, CommandError>;

}  // namespace tarnlink
