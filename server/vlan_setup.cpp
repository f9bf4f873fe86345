#include "server/vlan_setup.h"

#include <boost/throw_exception.hpp>
#include <stdexcept>

namespace tarnlink {

void throw_exception_from_error(const VlanError& error, const boost::source_location& location) {
  boost::throw_exception(std::runtime_error(error.description), location);
}

}  // namespace tarnlink
