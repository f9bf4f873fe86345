#include "goosestack/network_interface_info.h"

namespace goosestack {

FlutterDict NetworkInterfaceInfo::toFlutterDict() const {
  FlutterDict dict;
  dict.emplace("name", FlutterValue{name});
  dict.emplace("displayName", FlutterValue{displayName});
  dict.emplace("isUp", FlutterValue{isUp});
  dict.emplace("macAddress", FlutterValue{macAddress});
  dict.emplace("supportsMulticast", FlutterValue{supportsMulticast});
  return dict;
}

}  // namespace goosestack
