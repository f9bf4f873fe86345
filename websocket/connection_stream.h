// The socket of one WebSocket connection, with TLS or without, and its write queue. The WebSocket
// library sits on top and writes its handshake and control frames through the stream's asynchronous
// operations; shared text frames enter the queue directly.
#pragma once

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "websocket/tls_channel.h"
#include "websocket/write_queue.h"

namespace tarnlink {

/// An AsyncStream. queue().push() may be called from any thread; everything else runs on the
/// strand.
///
/// A write of the library completes when its octets have reached the socket: a peer that floods
/// pings without reading stalls its own pongs instead of filling memory.
class ConnectionStream {
 public:
  /// Its executor is the connection's strand.
  using Socket = boost::asio::ip::tcp::socket;
  using executor_type = Socket::executor_type;
  using Clock = std::chrono::steady_clock;

  /// Lives longer than the stream. Called on the strand, the first two at most once.
  class Owner {
   public:
    virtual void onWriteFailed(const boost::system::error_code& error) = 0;
    /// The library has queued its close frame; no text frame is taken any more.
    virtual void onCloseQueued() = 0;
    /// The socket has taken answers. As often as that happens.
    virtual void onAnswersSent() = 0;
    /// Held while the stream waits for the socket. Null: it need not wait any more.
    virtual std::shared_ptr<void> keepAlive() = 0;

   protected:
    ~Owner() = default;
  };

  /// The limit is the write queue's. With a TLS context, everything goes through TLS.
  ConnectionStream(Socket socket, std::size_t queueLimit, std::shared_ptr<const TlsContext> tls,
                   Owner& owner);

  WriteQueue& queue() { return queue_; }
  const WriteQueue& queue() const { return queue_; }

  /// The handshake has been answered: text frames may flow.
  void open();

  /// Writes what is queued, as much as the socket takes.
  void drain();

  /// Forgets the text frames that are not yet begun, and takes none any more.
  void refuseText() { queue_.refuseText(tls_ ? tls_->committed() : 0); }

  /// For a close frame that has to arrive: from now on text frames wait for nothing. Those that the
  /// socket does not take at once are forgotten.
  void refuseWaitingText();

  /// Says that nothing more will be said: close_notify where there is TLS, and FIN.
  void finish();

  /// Aborts everything. With reset, octets still in the kernel are thrown away too.
  void close(bool reset);

  /// Octets that the next reads find before those of the socket.
  void putBack(std::string_view octets) { putBack_.assign(octets); }

  /// When the library last came back for more octets: it has handled all that arrived before.
  Clock::time_point lastRead() const { return lastRead_; }

  bool isOpen() const { return socket_.is_open(); }
  executor_type get_executor() { return socket_.get_executor(); }

  template <class MutableBuffers, class Token>
  auto async_read_some(const MutableBuffers& buffers, Token&& token) {
    return boost::asio::async_initiate<Token, Completed>(
        [this](auto handler, const auto& target) {
          lastRead_ = Clock::now();
          this->read(*boost::asio::buffer_sequence_begin(target), std::move(handler));
        },
        token, buffers);
  }

  template <class ConstBuffers, class Token>
  auto async_write_some(const ConstBuffers& buffers, Token&& token) {
    return boost::asio::async_initiate<Token, Completed>(
        [this](auto handler, const auto& source) {
          std::string octets(boost::asio::buffer_size(source), '\0');
          boost::asio::buffer_copy(boost::asio::buffer(octets), source);
          this->write(std::move(octets), std::move(handler));
        },
        token, buffers);
  }

 private:
  using Completed = void(boost::system::error_code, std::size_t);
  using Handler = boost::asio::any_completion_handler<Completed>;

  void read(boost::asio::mutable_buffer room, Handler handler);
  void write(std::string octets, Handler handler);
  void complete(Handler handler, boost::system::error_code error, std::size_t octets);
  void drainLater();
  void waitWritable();
  void fail(const boost::system::error_code& error);

  Socket socket_;
  const std::unique_ptr<TlsChannel> tls_;  // null: none
  Owner& owner_;
  WriteQueue queue_;
  bool isStalled_ = false;  // waiting for the socket to take more
  bool refusesWaitingText_ = false;
  std::string putBack_;
  Clock::time_point lastRead_ = Clock::now();
  // The library's write that is under way: it begins one at a time.
  std::string written_;
  Handler onWritten_;
};

/// The library's customisation points for ending a stream. Ending belongs to the connection, which
/// closes in order first, so these leave the socket alone.
template <class TeardownHandler>
void async_teardown(boost::beast::role_type, ConnectionStream& stream, TeardownHandler&& handler) {
  boost::asio::post(
      stream.get_executor(),
      [h = std::decay_t<TeardownHandler>(std::forward<TeardownHandler>(handler))]() mutable {
        std::move(h)(boost::system::error_code());
      });
}
inline void beast_close_socket(ConnectionStream& stream) {
  stream.close(false);
}

}  // namespace tarnlink
