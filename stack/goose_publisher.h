// Sends one GOOSE publication with the transmission pattern of IEC 61850-8-1.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "goosestack/goose_pdu.h"
#include "goosestack/publishing.h"
#include "stack/kept_send_handle.h"
#include "stack/publication_schedule.h"

namespace goosestack {

/// An actor: its operations run one at a time on its own strand of the executor given, and so do
/// its timers. Make it with std::make_shared.
class GoosePublisher final : public GoosePublishing,
                             public std::enable_shared_from_this<GoosePublisher> {
 public:
  GoosePublisher(const boost::asio::any_io_executor& executor, LogSink log,
                 std::shared_ptr<SendHandleSource> handles);

  boost::asio::awaitable<GooseResult<void>> publishStateChange(GoosePublishConfig config) override;
  boost::asio::awaitable<void> unpublish(std::optional<std::string> goCBRef) override;
  boost::asio::awaitable<void> stop() override;

 private:
  GooseResult<void> changeState(const GoosePublishConfig& config);
  GooseResult<void> sendStateChange(PublicationSchedule::Clock::time_point& start);
  void endPublication();
  void waitForDeadline();
  void sendWhenDue(std::uint64_t generation);
  void tellChange(const GooseResult<void>& sent);
  GooseResult<Bytes> buildFrame(std::uint32_t sqNum);
  void logFrame(ByteView frame, ByteView srcMac) const;

  boost::asio::strand<boost::asio::any_io_executor> strand_;
  LogSink log_;
  KeptSendHandle pcapHandle_;
  PublicationSchedule schedule_;
  boost::asio::steady_timer timer_;
  std::optional<GoosePublishConfig> lastConfig_;
  GoosePdu pdu_;  // Of `lastConfig_`; its time is that of the state change.
  // Raised by whatever ends a publication: a timer that fired before it was cancelled finds another
  // generation than its own and does nothing.
  std::uint64_t generationCount_ = 0;
  bool isFailing_ = false;  // The latest frame could not be sent.
};

}  // namespace goosestack
