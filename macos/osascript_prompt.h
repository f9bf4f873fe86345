// The prompt of macOS's scripting tool.
#pragma once

#include "platform/admin_command.h"

namespace tarnlink {

extern const AdminPrompt kOsascriptPrompt;

}  // namespace tarnlink
