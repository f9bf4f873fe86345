// One network interface as interface discovery lists it.
#pragma once

#include <string>

#include "goosestack/flutter_dict.h"

namespace goosestack {

struct NetworkInterfaceInfo {
  std::string name;         ///< The system's name, such as eth0.
  std::string displayName;  ///< What users call it.
  bool isUp = false;
  std::string macAddress;  ///< As formatMac() writes it.
  bool supportsMulticast = false;

  bool operator==(const NetworkInterfaceInfo&) const = default;

  FlutterDict toFlutterDict() const;
};

}  // namespace goosestack
