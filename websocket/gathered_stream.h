// The socket of one WebSocket connection with its only write queue. The WebSocket library sits on
// top and writes its handshake and control frames through the stream's asynchronous operations;
// shared text frames enter the queue directly. Everything in the queue is a whole frame, so nothing
// can interleave inside a frame (RFC 6455, 5.4).
#pragma once

#include <array>
#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "websocket/text_frame.h"
#include "websocket/tls_channel.h"

namespace tarnlink {

/// An AsyncStream. push() may be called from any thread; everything else runs on the strand.
///
/// Until open(), the stream passes the library's writes (the handshake) straight to the socket and
/// holds pushed frames back. From then on all writes go through the queue, and a write of the
/// library completes when its octets have reached the socket: a peer that floods pings without
/// reading stalls its own pongs instead of filling memory.
class GatheredStream {
 public:
  /// Its executor is the connection's strand.
  using Socket = boost::asio::ip::tcp::socket;
  using executor_type = Socket::executor_type;
  using Clock = std::chrono::steady_clock;

  /// Called on the strand, the first two at most once.
  struct Events {
    std::function<void(const boost::system::error_code&)> writeFailed;
    /// The library has queued its close frame; no text frame is taken any more.
    std::function<void()> closeQueued;
    /// The socket has taken an answer. As often as that happens.
    std::function<void()> answerSent;
  };

  /// The limit bounds the memory of all text frames that the socket has not yet taken whole.
  /// Octets. With a TLS context, everything goes through TLS.
  GatheredStream(Socket socket, std::size_t queueLimit,
                 std::shared_ptr<const TlsContext> tls = nullptr);

  /// Set before use. The owner is held while the stream waits for the socket.
  void attach(std::weak_ptr<void> owner, Events events);

  enum class Push {
    accepted,
    /// Accepted into an idle queue: the caller makes the strand call drain().
    acceptedWhileIdle,
    /// The limit is passed. Reported once; the queue is freed and takes nothing any more.
    overflow,
    /// The connection is closing or gone.
    dropped,
  };
  enum class Kind { answer, event };
  /// Takes the frames, in their order.
  Push push(std::span<SharedTextFrame> frames, Kind kind);

  /// The memory of the answers that the socket has not yet taken whole. Octets.
  std::size_t unsentAnswers() const { return answerMemory_; }

  /// The handshake has been answered: frames may flow.
  void open();

  /// Writes what is queued, as much as the socket takes.
  void drain();

  /// Forgets the text frames that are not yet begun, and takes none any more.
  void refuseText();

  /// For a close frame that has to arrive: from now on text frames wait for nothing. Those that the
  /// socket does not take at once are forgotten.
  void hurry();

  /// Says that nothing more will be said: close_notify where there is TLS, and FIN.
  void finish();

  /// Aborts everything. With reset, octets still in the kernel are thrown away too.
  void close(bool reset);

  /// Octets that the next reads find before those of the socket.
  void putBack(std::string_view octets) { putBack_.assign(octets); }

  /// When the library last came back for more octets: it has handled all that arrived before.
  Clock::time_point lastRead() const { return lastRead_; }

  Socket& socket() { return socket_; }
  executor_type get_executor() { return socket_.get_executor(); }

  template <class MutableBuffers, class Token>
  auto async_read_some(const MutableBuffers& buffers, Token&& token) {
    return boost::asio::async_initiate<Token, void(boost::system::error_code, std::size_t)>(
        [this](auto handler, const auto& target) { this->readSome(target, std::move(handler)); },
        token, buffers);
  }

  template <class ConstBuffers, class Token>
  auto async_write_some(const ConstBuffers& buffers, Token&& token) {
    return boost::asio::async_initiate<Token, void(boost::system::error_code, std::size_t)>(
        [this](auto handler, const auto& source) { this->writeSome(source, std::move(handler)); },
        token, buffers);
  }

 private:
  // A frame in the queue. Frames of the library have no owner: their octets are in libraryOctets_.
  struct Item {
    SharedTextFrame frame;
    std::string_view octets;
    Kind kind = Kind::event;
  };

  using Items = std::vector<Item>;

  // Buffers of one gathered write: what Asio passes on to one sendmsg.
  static constexpr std::size_t kBuffersPerWrite = 64;
  using Buffers = std::array<boost::asio::const_buffer, kBuffersPerWrite>;
  struct Gathered {
    std::span<const boost::asio::const_buffer> buffers;
    std::size_t octets = 0;
  };

  // An operation of the library that is under way, whatever its handler's type. There is one read
  // and one write at a time.
  struct Operation {
    virtual ~Operation() = default;
    virtual void complete(const executor_type& strand, boost::system::error_code error,
                          std::size_t octets) = 0;
  };
  template <class Handler>
  struct OperationOf final : Operation {
    explicit OperationOf(Handler h) : handler(std::move(h)) {}
    void complete(const executor_type& strand, boost::system::error_code error,
                  std::size_t octets) override {
      auto executor = boost::asio::get_associated_executor(handler, strand);
      boost::asio::post(executor, [h = std::move(handler), error, octets]() mutable {
        std::move(h)(error, octets);
      });
    }
    Handler handler;
  };

  template <class MutableBuffers, class Handler>
  void readSome(const MutableBuffers& target, Handler handler) {
    lastRead_ = Clock::now();
    if (putBack_.empty() && !tls_) {
      socket_.async_read_some(target, std::move(handler));
      return;
    }
    if (putBack_.empty()) {
      const boost::asio::mutable_buffer room = *boost::asio::buffer_sequence_begin(target);
      readTls(room, std::make_unique<OperationOf<Handler>>(std::move(handler)));
      return;
    }
    const auto octets = boost::asio::buffer_copy(target, boost::asio::buffer(putBack_));
    putBack_.erase(0, octets);
    OperationOf<Handler>(std::move(handler)).complete(get_executor(), {}, octets);
  }

  template <class ConstBuffers, class Handler>
  void writeSome(const ConstBuffers& source, Handler handler) {
    if (!open_ && !tls_) {
      socket_.async_write_some(source, std::move(handler));
      return;
    }
    if (!socket_.is_open()) {
      // The answer to something that was read before a failed write closed the socket.
      OperationOf<Handler>(std::move(handler))
          .complete(get_executor(), boost::asio::error::operation_aborted, 0);
      return;
    }
    libraryOctets_.resize(boost::asio::buffer_size(source));
    boost::asio::buffer_copy(boost::asio::buffer(libraryOctets_), source);
    libraryWrite_ = std::make_unique<OperationOf<Handler>>(std::move(handler));
    if (open_) {
      queueLibraryOctets();
    } else {
      writeTls();
    }
  }

  void readTls(boost::asio::mutable_buffer room, std::unique_ptr<Operation> read);
  void writeTls();
  void queueLibraryOctets();
  static Items& spareStorage();
  bool refill();
  Gathered gather(Buffers& buffers) const;
  void written(std::size_t octets);
  void waitWritable();
  void fail(const boost::system::error_code& error);
  void completeLibraryWrite(boost::system::error_code error, std::size_t octets);

  Socket socket_;
  const std::unique_ptr<TlsChannel> tls_;  // null: none
  const std::size_t queueLimit_;
  std::weak_ptr<void> owner_;
  Events events_;

  // Strand only.
  bool open_ = false;
  bool stalled_ = false;  // waiting for the socket to take more
  bool hurries_ = false;
  std::string putBack_;
  Clock::time_point lastRead_ = Clock::now();
  std::string libraryOctets_;
  std::unique_ptr<Operation> libraryWrite_;
  Items writing_;  // taken from pending_ as a whole; begun at next_
  std::size_t next_ = 0;

  // The text frames of pending_ and writing_; grows under the lock only, so that the limit is
  // exact. Octets.
  std::atomic<std::size_t> queuedMemory_ = 0;
  std::atomic<std::size_t> answerMemory_ = 0;  // the answers among them

  std::mutex mutex_;  // guards what follows; held for a few instructions a frame
  Items pending_;
  bool draining_ = true;  // a drain is posted, running or waiting; held true until open()
  bool refusesText_ = false;
};

/// The library's customisation points for ending a stream. Ending belongs to the connection, which
/// says goodbye first, so these leave the socket alone.
template <class TeardownHandler>
void async_teardown(boost::beast::role_type, GatheredStream& stream, TeardownHandler&& handler) {
  boost::asio::post(
      stream.get_executor(),
      [h = std::decay_t<TeardownHandler>(std::forward<TeardownHandler>(handler))]() mutable {
        std::move(h)(boost::system::error_code());
      });
}
inline void beast_close_socket(GatheredStream& stream) {
  stream.close(false);
}

}  // namespace tarnlink
