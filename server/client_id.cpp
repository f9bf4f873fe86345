#include "server/client_id.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace tarnlink {

ClientId makeClientId() {
  return boost::uuids::random_generator_pure()();
}

std::string toText(const ClientId& id) {
  return boost::algorithm::to_upper_copy(boost::uuids::to_string(id));
}

}  // namespace tarnlink
