#include "goosestack/flutter_dict.h"

namespace goosestack {

// Written out: clang 14 crashes on defaulted comparisons of recursive types.
bool FlutterValue::operator==(const FlutterValue& other) const {
  return value == other.value;
}

}  // namespace goosestack
