// sd_notify(3). Its result is not looked at: a manager that cannot be reached ends the process by
// its own time limits, and nothing here could help that.
#include <systemd/sd-daemon.h>

#include <string>

#include "platform/service_notify.h"

namespace tarnlink {
namespace {

constexpr int kKeepEnvironment = 0;  // Unsetting NOTIFY_SOCKET would race with other threads.

}  // namespace

void notifyServiceReady(std::string_view status) {
  const auto state = "READY=1\nSTATUS=" + std::string(status);
  ::sd_notify(kKeepEnvironment, state.c_str());
}

void notifyServiceStopping() {
  ::sd_notify(kKeepEnvironment, "STOPPING=1");
}

}  // namespace tarnlink
