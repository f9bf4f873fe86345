// The command line of tarnlink.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "app/host/daemon_options.h"
#include "app/host/user_texts.h"

namespace tarnlink {

struct DesktopOptions {
  std::optional<Language> language;          ///< Nothing: the session's.
  DaemonOptions bridge;                      ///< As far as this program passes options on.
  std::vector<std::string> bridgeArguments;  ///< What the bridge gets, port excluded.
};

/// Options of the user interface library are passed over. A bridge started by a person's session
/// stands in networks that nobody hardened, so unless told otherwise it gets what the packaged
/// service has: pages of this computer alone, 64 clients, and always --auth-delay.
std::variant<DesktopOptions, ExitCode> parseDesktopOptions(int argc, const char* const* argv);

}  // namespace tarnlink
