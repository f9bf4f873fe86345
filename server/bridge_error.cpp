#include "server/bridge_error.h"

#include <boost/throw_exception.hpp>
#include <stdexcept>

namespace tarnlink {

std::string BridgeError::description() const {
  switch (case_) {
    case Case::invalidPort:
      return "Invalid bridge port: " + std::to_string(port_);
    case Case::portInUse:
      return "Port " + std::to_string(port_) + " is already in use";
    case Case::cancelled:
      return "Bridge listener was cancelled";
    case Case::transport:
      return error_.message();
  }
  return {};
}

void throw_exception_from_error(const BridgeError& error, const boost::source_location& location) {
  boost::throw_exception(std::runtime_error(error.description()), location);
}

}  // namespace tarnlink
