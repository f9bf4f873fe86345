#include "goosestack/goose_error.h"

#include <boost/throw_exception.hpp>
#include <stdexcept>

namespace goosestack {

std::string GooseError::description() const {
  switch (case_) {
    case Case::notRunning:
      return "not running";
    case Case::permissionDenied:
      return "permission denied";
    default:
      return text_;
  }
}

void throw_exception_from_error(const GooseError& error, const boost::source_location& location) {
  boost::throw_exception(std::runtime_error(error.description()), location);
}

}  // namespace goosestack
