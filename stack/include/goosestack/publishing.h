// Sending: one GOOSE publication with the transmission pattern of IEC 61850-8-1, and Sampled Values
// payloads (IEC 61850-9-2) that the caller has encoded.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <memory>
#include <optional>
#include <string>

#include "goosestack/bytes.h"
#include "goosestack/goose_error.h"
#include "goosestack/goose_publish_config.h"
#include "goosestack/log_sink.h"
#include "goosestack/sv_records.h"

namespace goosestack {

/// One GOOSE publication at a time. Safe to await from any coroutine; calls are served one at a
/// time. Stop it before dropping it; an abandoned one sends nothing more.
class GoosePublishing {
 public:
  virtual ~GoosePublishing() = default;

  /// Sends the state-change frame and begins the schedule; replaces the publication before,
  /// whatever its reference. Fails with pcapOpenFailed, sendFailed or notRunning:
  ///
  /// - Where the interface cannot be opened, the publication before goes on, without a handle when
  ///   it named another interface.
  /// - Where the state-change frame cannot be sent, the publication is recorded, its numbers are
  ///   taken, and nothing is scheduled.
  virtual boost::asio::awaitable<GooseResult<void>> publishStateChange(
      GoosePublishConfig config) = 0;
  /// Ends the publication, if it is that of the reference given; with none, whatever runs. The
  /// send handle stays open and the numbers are kept.
  virtual boost::asio::awaitable<void> unpublish(std::optional<std::string> goCBRef) = 0;
  /// Also closes the send handle. May be used again afterwards.
  virtual boost::asio::awaitable<void> stop() = 0;
};

/// Sends SV payloads, one frame a call, without timing and numbering. Same rules.
class SvPublishing {
 public:
  virtual ~SvPublishing() = default;

  /// `pdu` is all that follows the EtherType. Fails with pcapOpenFailed, sendFailed or notRunning.
  /// After a failed send the handle stays open, unless its interface has gone.
  virtual boost::asio::awaitable<GooseResult<void>> publishApdu(Bytes pdu,
                                                                SvPublishConfig config) = 0;
  /// Closes the handle; the next call opens one again.
  virtual boost::asio::awaitable<void> stop() = 0;
};

/// On the machine's interfaces, over libpcap; needs CAP_NET_RAW. It works and keeps its timers on
/// the executor given, which nothing else should delay (RealTimeThread). Callers may be on any.
///
/// - Each frame leaves on the interface that has the publication's name at that moment, or fails:
///   one that was removed and has come back is found again with the next frame.
/// - Later frames that fail are dropped, and the schedule goes on. The log has a line when the
///   frames of a publication begin to fail, and one when they go again.
/// - Frames with sequence number 0 are logged, in two lines, before they are sent.
std::shared_ptr<GoosePublishing> makeGoosePublisher(const boost::asio::any_io_executor& executor,
                                                    LogSink log);

/// The same for SV. It may block the executor for the milliseconds that opening a handle takes: not
/// that of a GOOSE publisher.
std::shared_ptr<SvPublishing> makeSvPublisher(const boost::asio::any_io_executor& executor);

}  // namespace goosestack
