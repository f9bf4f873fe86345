// What a user of captures sees: something that starts on an interface, yields records and stops.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <functional>
#include <string>

#include "goosestack/capture_drops.h"
#include "goosestack/goose_error.h"
#include "goosestack/message_stream.h"

namespace goosestack {

/// One capture. Safe to call from any coroutine, one call at a time; it lives until the call has
/// returned. Stop it before dropping it.
template <class Record>
class RecordSource {
 public:
  static constexpr std::size_t kUnbounded = StreamState<Record>::kUnbounded;

  virtual ~RecordSource() = default;

  /// What happens to a capture. Called from any thread; each may be empty.
  struct Events {
    /// Once, when a capture ends although nobody stopped it, with libpcap's text; the stream stays
    /// open until stop().
    std::function<void(std::string reason)> onDeath;
    /// The kernel had no room for frames: told at most once a second, and at the end.
    std::function<void(const CaptureDrops& drops)> onDrops;
  };

  /// Ends any earlier capture of this source first. Fails with permissionDenied, pcapOpenFailed or
  /// pcapFilterFailed; then there is no stream and the source is idle.
  virtual boost::asio::awaitable<GooseResult<MessageStream<Record>>> start(std::string interface,
                                                                           Events events) = 0;

  /// Ends the capture, closes its handle and finishes the stream. Safe when idle, and repeatedly.
  virtual boost::asio::awaitable<void> stop() = 0;
};

}  // namespace goosestack
