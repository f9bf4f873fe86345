// Port to the service manager that started the process: tells it how far the process is. Does
// nothing where no manager asked for that.
#pragma once

#include <string_view>

namespace tarnlink {

/// The process serves from now on. `status` is one line for people who ask the manager. Any thread.
void notifyServiceReady(std::string_view status);

/// An orderly stop has begun. Any thread.
void notifyServiceStopping();

}  // namespace tarnlink
