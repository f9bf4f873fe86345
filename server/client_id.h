// The key of every per-client table.
#pragma once

#include <boost/uuid/uuid.hpp>
#include <string>

namespace tarnlink {

/// A random 128-bit UUID, made when a connection is accepted.
using ClientId = boost::uuids::uuid;

ClientId makeClientId();

/// The canonical 36 characters, upper case.
std::string toText(const ClientId& id);

}  // namespace tarnlink
