// Capture access on Linux: the bridge's program file gets CAP_NET_RAW, for the users who asked.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "app/host/capture_access.h"
#include "platform/process_capabilities.h"

namespace tarnlink {

/// The files that take part.
struct CapabilityAccessFiles {
  std::filesystem::path bridge;                      ///< The program that captures.
  std::filesystem::path helper;                      ///< Gives `bridge` its capability.
  std::filesystem::path pkexec = "/usr/bin/pkexec";  ///< polkit's prompt.
};

/// A capability on the file rather than on the desktop program: a program that links Qt must not
/// have one, since plug-in paths and D-Bus break, or are a hole, in secure execution.
class BpfCapabilityAccess final : public CaptureAccess {
 public:
  BpfCapabilityAccess(std::unique_ptr<ProcessRunner> runner, CapabilityAccessFiles files)
      : runner_(std::move(runner)), files_(std::move(files)) {}

  bool isGranted() override { return givesCaptureCapability(files_.bridge); }

  /// Fails as runProgramAsAdmin() does.
  AdminResult install() override {
    return runProgramAsAdmin(*runner_, files_.pkexec.string(), files_.helper.string());
  }

  void cancel() override { runner_->cancel(); }
  std::optional<CapabilityGrant> grant() const override {
    return CapabilityGrant{files_.bridge.string(), files_.helper.string()};
  }

 private:
  std::unique_ptr<ProcessRunner> runner_;
  CapabilityAccessFiles files_;
};

}  // namespace tarnlink
