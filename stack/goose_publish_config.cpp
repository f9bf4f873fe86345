#include "goosestack/goose_publish_config.h"

namespace goosestack {

const RetransmissionProfile& RetransmissionProfile::standard() {
  static const RetransmissionProfile profile{{2, 4, 8, 16, 32, 64, 1000, 1000, 1000, 1000}, 4000};
  return profile;
}

const RetransmissionProfile& RetransmissionProfile::fast() {
  static const RetransmissionProfile profile{{2, 4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048},
                                             2000};
  return profile;
}

const RetransmissionProfile& RetransmissionProfile::single() {
  static const RetransmissionProfile profile{{}, 0};
  return profile;
}

}  // namespace goosestack
