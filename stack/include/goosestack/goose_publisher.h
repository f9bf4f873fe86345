// Sends one GOOSE publication with the transmission pattern of IEC 61850-8-1, 18.1.2.5.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "goosestack/goose_error.h"
#include "goosestack/log_sink.h"
#include "goosestack/publishing.h"
#include "goosestack/time_point.h"
#include "stack/kept_send_handle.h"
#include "stack/publication_schedule.h"

namespace goosestack {

/// An actor: its operations run one at a time on its own strand of the executor given, and so do
/// its timers. Give it one that nothing else delays (PunctualThread). Callers may be on any
/// executor. Make it with std::make_shared; an abandoned one sends nothing more.
///
/// - A publication replaces the one before, whatever its reference. One that fails to open its
///   interface leaves the old one running, without a handle when it named another interface.
/// - Each frame leaves on the interface that has the publication's name at that moment, or fails:
///   one that was removed and has come back is found again with the next frame.
/// - The log has a line when the frames of a publication begin to fail, and one when they go again.
/// - When the state-change frame fails to send, the publication is recorded, its numbers are taken,
///   and nothing is scheduled. Later frames that fail are dropped, and the schedule goes on.
/// - Frames with sequence number 0 are logged, in two lines, before they are sent.
class GoosePublisher final : public GoosePublishing,
                             public std::enable_shared_from_this<GoosePublisher> {
 public:
  GoosePublisher(const boost::asio::any_io_executor& executor, LogSink log,
                 std::shared_ptr<SendHandleSource> handles = systemSendHandles());

  /// Fails with pcapOpenFailed, sendFailed or notRunning.
  boost::asio::awaitable<GooseResult<void>> publishStateChange(GoosePublishConfig config) override;
  /// The send handle stays open and the numbers are kept.
  boost::asio::awaitable<void> unpublish(std::optional<std::string> goCBRef) override;
  /// Also closes the send handle. May be used again afterwards.
  boost::asio::awaitable<void> stop() override;

 private:
  GooseResult<void> changeState(const GoosePublishConfig& config);
  GooseResult<void> sendStateChange(PublicationSchedule::Clock::time_point& start);
  void endPublication();
  void waitForDeadline();
  void sendWhenDue(std::uint64_t generation);
  void tellTurn(const GooseResult<void>& sent);
  GooseResult<Bytes> buildFrame(std::uint32_t sqNum) const;
  void logFrame(ByteView frame, ByteView srcMac) const;

  boost::asio::strand<boost::asio::any_io_executor> strand_;
  LogSink log_;
  KeptSendHandle pcapHandle_;
  PublicationSchedule schedule_;
  boost::asio::steady_timer timer_;
  std::optional<GoosePublishConfig> lastConfig_;
  TimePoint stateChangeTimestamp_ = timeNow();  // Written as `t` into every frame.
  // Raised by whatever ends a publication: a timer that fired before it was cancelled finds another
  // generation than its own and does nothing.
  std::uint64_t generationCount_ = 0;
  bool isFailing_ = false;  // The latest frame could not be sent.
};

}  // namespace goosestack
