#include "goosestack/network_interface_info.h"

namespace goosestack {

FlutterDict NetworkInterfaceInfo::toFlutterDict() const {
  return {{"name", {name}},
          {"displayName", {displayName}},
          {"isUp", {isUp}},
          {"macAddress", {macAddress}},
          {"supportsMulticast", {supportsMulticast}}};
}

}  // namespace goosestack
