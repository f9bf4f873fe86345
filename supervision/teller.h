// How a tracker tells what it sees: counted in the stream's row, and told unless there is too much.
#pragma once

#include "supervision/stream_event.h"

namespace tarnlink {

class Teller {
 public:
  virtual void tell(Happening what) = 0;

 protected:
  ~Teller() = default;
};

}  // namespace tarnlink
