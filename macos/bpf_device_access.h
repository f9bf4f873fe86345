// Capture access on systems with packet-filter devices (macOS): a launch daemon that gives the
// `admin` group read and write access to them at every system start.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "app/host/capture_access.h"

namespace tarnlink {

class BpfDeviceAccess final : public CaptureAccess {
 public:
  /// `temporaryFolder`: where the daemon's property list waits to be copied. `devicePrefix`: path
  /// of the devices without their number.
  BpfDeviceAccess(std::unique_ptr<ProcessRunner> runner, std::filesystem::path temporaryFolder,
                  std::string devicePrefix = "/dev/bpf")
      : runner_(std::move(runner)),
        temporaryFolder_(std::move(temporaryFolder)),
        devicePrefix_(std::move(devicePrefix)) {}

  /// True when one of the devices is readable. An unreadable device ends the search: those after it
  /// have the same owner.
  bool isGranted() override;

  /// Fails with the system's error when the property list cannot be written, else as runAsAdmin()
  /// with the prompt of macOS's scripting tool does. A failed installation leaves the property list
  /// behind in the temporary folder.
  AdminResult install() override;

  void cancel() override { runner_->cancel(); }

 private:
  std::unique_ptr<ProcessRunner> runner_;
  std::filesystem::path temporaryFolder_;
  std::string devicePrefix_;
};

}  // namespace tarnlink
