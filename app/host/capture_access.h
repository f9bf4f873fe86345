// Port to whatever lets the bridge capture, and how the user's consent brings it about.
#pragma once

#include <optional>
#include <string>

#include "platform/admin_command.h"

namespace tarnlink {

/// Access as a capability of a file: which one gets it, and which program gives and takes it.
struct CapabilityGrant {
  std::string file;
  std::string helper;
};

/// One way of giving access, for one system. Nothing is cached: every call looks anew.
class CaptureAccess {
 public:
  virtual ~CaptureAccess() = default;

  /// Whether the bridge could capture if it were started now. Starts no process and waits for
  /// nobody.
  virtual bool isGranted() = 0;

  /// Asks an administrator and sets access up, for good. A bridge that runs already does not get
  /// it. Blocks while the user answers.
  virtual AdminResult install() = 0;

  /// Ends a pending install(). Any thread.
  virtual void cancel() = 0;

  /// What install() changes, to be told before; nothing where no file gets a capability.
  virtual std::optional<CapabilityGrant> grant() const { return std::nullopt; }
};

}  // namespace tarnlink
