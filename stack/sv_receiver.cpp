#include "goosestack/sv_receiver.h"

#include "stack/capture_receiver.h"
#include "stack/sv_frame_decoder.h"

namespace goosestack {

std::shared_ptr<SvReceiver> makeSvReceiver(const boost::asio::any_io_executor& executor,
                                           CaptureMode mode, std::size_t queueLimit) {
  return std::make_shared<CaptureReceiver<SvFrameDecoder>>(executor, mode, queueLimit);
}

}  // namespace goosestack
