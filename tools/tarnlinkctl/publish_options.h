// The subcommands that put frames on the wire.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// Of 16 bits, decimal or hexadecimal after 0x.
CLI::Validator appIdRange();

/// Adds publish, unpublish and publish-sv; the one that is given sets `command`.
void addPublishCommands(CLI::App& app, CtlCommand& command);

}  // namespace tarnlink
