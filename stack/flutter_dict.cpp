#include "stack/flutter_dict.h"

namespace tarnlink {

// Written out: clang 14 crashes on defaulted comparisons of recursive types.
bool FlutterValue::operator==(const FlutterValue& other) const {
  return value == other.value;
}

}  // namespace tarnlink
