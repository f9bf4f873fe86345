#include "protocol/unreadable.h"

#include <boost/throw_exception.hpp>
#include <stdexcept>
#include <utility>

namespace tarnlink {

Unreadable Unreadable::inside(std::string_view parent) && {
  where = where.empty() ? std::string(parent) : std::string(parent) + "." + where;
  return std::move(*this);
}

void throw_exception_from_error(const Unreadable& fault, const boost::source_location& location) {
  boost::throw_exception(std::runtime_error(fault.reason()), location);
}

}  // namespace tarnlink
