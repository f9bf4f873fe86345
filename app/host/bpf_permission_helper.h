// Asks for capture access where it is missing, and tells how that went.
#pragma once

#include <string>
#include <string_view>

#include "app/host/capture_access.h"

namespace tarnlink {

/// Modal alerts; each blocks until it is answered.
class UserAlerts {
 public:
  virtual ~UserAlerts() = default;

  /// True for the first of the two buttons, which is the default one; false for every other answer,
  /// closing the alert included.
  virtual bool confirm(std::string_view title, std::string_view message, std::string_view accept,
                       std::string_view decline) = 0;
  /// With one button "OK".
  virtual void showInfo(std::string_view title, std::string_view message) = 0;
};

/// Stateless beyond its two ports, which outlive it. One thread, the one that shows alerts.
class BpfPermissionHelper {
 public:
  BpfPermissionHelper(CaptureAccess& access, UserAlerts& alerts)
      : access_(access), alerts_(alerts) {}

  bool canReadBpf() const { return access_.isGranted(); }

  /// True when access is there afterwards. Shows nothing when it was there before. The text of a
  /// failed installation is shown trimmed, or as "unknown error" when it is not UTF-8.
  bool ensureAccess();

 private:
  CaptureAccess& access_;
  UserAlerts& alerts_;
};

}  // namespace tarnlink
