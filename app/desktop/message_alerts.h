// Modal alerts of the desktop program.
#pragma once

#include "app/host/bpf_permission_helper.h"

namespace tarnlink {

/// The thread that draws. Timers and the bridge's news go on while an alert waits.
class MessageAlerts final : public UserAlerts {
 public:
  bool confirm(std::string_view title, std::string_view message, std::string_view accept,
               std::string_view decline) override;
  void showInfo(std::string_view title, std::string_view message) override;
};

}  // namespace tarnlink
