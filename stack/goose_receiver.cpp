#include "goosestack/goose_receiver.h"

#include "stack/capture_receiver.h"
#include "stack/goose_frame_decoder.h"

namespace goosestack {

std::shared_ptr<GooseReceiver> makeGooseReceiver(const boost::asio::any_io_executor& executor,
                                                 CaptureMode mode, std::size_t queueLimit) {
  return std::make_shared<CaptureReceiver<GooseFrameDecoder>>(executor, mode, queueLimit);
}

}  // namespace goosestack
