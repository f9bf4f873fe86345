// Asks for capture access where it is missing, and tells how that went.
#pragma once

#include <string>
#include <string_view>

#include "app/host/capture_access.h"
#include "app/host/user_texts.h"

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

/// Stateless beyond its ports and texts, which outlive it. One thread, the one that shows alerts.
class BpfPermissionHelper {
 public:
  BpfPermissionHelper(CaptureAccess& access, UserAlerts& alerts,
                      const UserTexts& texts = userTexts(Language::german))
      : access_(access), alerts_(alerts), texts_(texts) {}

  bool canReadBpf() const { return access_.isGranted(); }

  /// True when access is there afterwards. Shows nothing when it was there before. The text of a
  /// failed installation is shown trimmed, or as "unknown error" when it is not UTF-8.
  bool ensureAccess();

 private:
  std::string question() const;
  std::string wordsFor(const AdminError& error) const;

  CaptureAccess& access_;
  UserAlerts& alerts_;
  const UserTexts& texts_;
};

}  // namespace tarnlink
