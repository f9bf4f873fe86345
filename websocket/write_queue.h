// What one connection has yet to write: whole frames in their order, within a limit of memory, so
// that nothing can interleave inside a frame (RFC 6455, 5.4).
#pragma once

#include <array>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <cstddef>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

#include "websocket/text_frame.h"

namespace tarnlink {

/// push() and unsentAnswers() may be called from any thread; everything else from the strand alone.
class WriteQueue {
 public:
  /// The limit bounds the memory of all text frames that are not yet written whole
  /// (TextFrame::footprint()). Octets.
  explicit WriteQueue(std::size_t limit) : limit_(limit) {}

  enum class Kind { answer, event, protocol };
  enum class Push {
    accepted,
    acceptedWhileIdle,  ///< The caller makes the strand write.
    overflow,           ///< Said once: the limit is passed, and no text is taken any more.
    dropped,            ///< No text is taken any more.
  };
  /// Takes the text frames, in their order.
  Push push(std::span<SharedTextFrame> frames, Kind kind);

  /// The memory of the answers that are not yet written whole. Octets.
  std::size_t unsentAnswers() const { return answerMemory_; }

  /// Octets of the protocol's own, one call's at a time: they stay where they are until they are
  /// written. After the last ones no text is taken. True when the caller makes the strand write.
  bool pushProtocol(std::string_view octets, bool areLast);

  /// Text may be written from now on. Until then it waits.
  void open() { isOpen_ = true; }
  bool isOpen() const { return isOpen_; }

  /// Buffers of one gathered write: what Asio passes on to one sendmsg.
  using Buffers = std::array<boost::asio::const_buffer, 64>;
  /// What is to be written next, as far as one write goes. Nothing: the queue is idle.
  std::span<const boost::asio::const_buffer> gather(Buffers& buffers);

  /// Which kinds were finished with a write.
  struct Written {
    bool hasAnswers = false;
    bool hasProtocol = false;
  };
  /// So many octets of what was gathered are written.
  Written written(std::size_t octets);

  /// Forgets the text frames of which nothing is written, and takes none any more. So many octets
  /// count as written: a TLS record holds them already.
  void refuseText(std::size_t committed);

  /// Forgets everything, and takes no text any more.
  void clear();

 private:
  // Protocol octets have no frame.
  struct Item {
    SharedTextFrame frame;
    std::string_view octets;
    Kind kind = Kind::event;
  };
  using Items = std::vector<Item>;

  static Items& spareStorage();
  bool refill();
  void release(const Item& item);

  const std::size_t limit_;

  // Strand only.
  bool isOpen_ = false;
  Items writing_;  // taken from pending_ as a whole; begun at next_
  std::size_t next_ = 0;

  // The text frames of pending_ and writing_; grows under the lock only, so that the limit is
  // exact. Octets.
  std::atomic<std::size_t> memory_ = 0;
  std::atomic<std::size_t> answerMemory_ = 0;  // the answers among them

  std::mutex mutex_;  // guards what follows; held for a few instructions a frame
  Items pending_;
  bool isBusy_ = true;  // somebody writes, or is about to; held true until open()
  bool refusesText_ = false;
};

}  // namespace tarnlink
