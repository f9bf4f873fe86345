// Which messages of one connection are read, and when: one for each that is asked for, and a few
// ahead while one takes long.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/result.hpp>
#include <chrono>
#include <cstddef>
#include <deque>

#include "websocket/websocket.h"
#include "websocket/write_queue.h"

namespace tarnlink {

/// Everything runs on the strand. Its coroutines end before it does.
class Inbox {
 public:
  using Received = boost::system::result<WebSocketMessage>;
  using Clock = std::chrono::steady_clock;

  /// While answers that take more memory than this wait in the queue, nothing is read. Octets.
  Inbox(const boost::asio::any_io_executor& strand, const WriteQueue& queue,
        std::size_t unsentAnswers);

  /// What WebSocketConnection::receive() does.
  boost::asio::awaitable<Received> receive();

  /// For the one who reads: waits until a message is to be read, and put(). False after the end.
  boost::asio::awaitable<bool> wantsMessage();
  void put(WebSocketMessage message);

  /// Looks again whether a message is to be read: answers have been sent.
  void reconsider() { wake_.cancel(); }

  /// Whoever receives learns this, now and later, instead of what has been read ahead. Only the
  /// first end counts.
  void end(boost::system::error_code error);
  boost::system::error_code whyEnded() const { return end_; }

  /// Somebody waits in receive().
  bool isAwaited() const { return isAwaited_; }
  /// So a silent peer is silent, and not unheard.
  bool isListening() const { return isAwaited_ || isReading_; }

 private:
  bool mayRead() const;

  const WriteQueue& queue_;
  const std::size_t unsentAnswers_;
  boost::system::error_code end_;
  bool isAwaited_ = false;
  bool isReading_ = false;
  std::deque<WebSocketMessage> messages_;  // read, not yet taken
  std::size_t octets_ = 0;                 // of these messages
  // When a message has been served for so long that its sender is to be heard meanwhile.
  Clock::time_point servedLong_ = Clock::time_point::max();
  boost::asio::steady_timer wake_;     // of the one who reads
  boost::asio::steady_timer arrived_;  // never expires: cancelled for the one who receives
};

}  // namespace tarnlink
