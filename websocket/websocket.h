// Port to the WebSocket server transport (RFC 6455, version 13) on one TCP port. The transport
// enforces the RFC by itself: it answers pings, refuses text that is not UTF-8 with close code 1007
// and messages above its limit with 1009.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/result.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "websocket/text_frame.h"
#include "websocket/upgrade_rules.h"

namespace tarnlink {

/// What the transport bounds. At each limit one connection is affected and no other.
struct WebSocketLimits {
  /// A longer incoming message gets close code 1009. Octets.
  std::size_t incomingMessage = std::size_t{1} << 20;
  /// The same from a peer that is not admitted. Octets.
  std::size_t strangerMessage = 4096;
  /// A peer that is not admitted by then is dropped (WebSocketError::notAdmitted).
  std::chrono::milliseconds strangerTime{60'000};
  /// While answers (send()) that take more memory than this wait for a client, nothing of it is
  /// read. Octets, as TextFrame::footprint() counts.
  std::size_t unsentAnswers = std::size_t{256} << 10;
  /// A client whose unsent frames take more memory than this (TextFrame::footprint()) is dropped
  /// (WebSocketError::sendQueueFull). Octets.
  std::size_t sendQueue = std::size_t{64} << 20;
  /// A connection that has not finished its upgrade by then is dropped.
  std::chrono::milliseconds handshake{10'000};
  /// A connection silent for half of this gets a ping; one silent for all of it is dropped.
  std::chrono::milliseconds idle{300'000};
  /// Pause before the next accept after one failed (no descriptors left, for example).
  std::chrono::milliseconds acceptBackOff{100};
};

class TlsContext;

/// Who is let in, and how. As made, everybody, without encryption.
struct WebSocketAccess {
  /// Local addresses to listen on; empty: all of them.
  std::vector<boost::asio::ip::address> addresses;
  /// Upgrades that break them are answered with status 403.
  UpgradeRules rules;
  /// Connections at a time, unfinished handshakes counted; 0: any number. One more takes the place
  /// of one that is not admitted (see ClientPlaces). Otherwise it is answered with status 503, or
  /// closed at once where many wait for that answer.
  std::size_t maxClients = 0;
  /// Null: no TLS. Otherwise nothing but TLS.
  std::shared_ptr<const TlsContext> tls;
};

/// Failures that are the transport's own; all others are the system's or the WebSocket library's.
enum class WebSocketError {
  sendQueueFull = 1,
  handshakeTimeout,
  idleTimeout,
  originNotAllowed,
  hostNotAllowed,
  tooManyClients,
  notAdmitted,
  madeRoom,
  peerClosed,  ///< What receive() answers after a close handshake that the peer began; no failure.
};
boost::system::error_code make_error_code(WebSocketError error);

/// States that listeners and connections report, each at most once: first Ready, then one of the
/// others, or one of the others alone.
struct TransportReady {};
struct TransportFailed {
  boost::system::error_code error;
  /// What of the peer's the error is about: the refused Origin or Host. As it came, but 256 octets
  /// at most. Empty where there is nothing to add.
  std::string detail = {};
};
struct TransportCancelled {};
/// Connections alone: the peer has gone while a message of its was being served, so that nobody was
/// receiving, who would have been told. What it had sent before is lost, too.
struct TransportLost {
  boost::system::error_code error;
};
using TransportState =
    std::variant<TransportReady, TransportFailed, TransportCancelled, TransportLost>;

/// What a connection's owner knows about its peer.
enum class Standing {
  stranger,  ///< As accepted. Messages are short, and time to be admitted is limited.
  waiting,   ///< An attempt to be admitted waits in a queue: that time does not count.
  admitted,
};

/// One complete incoming message. The data of a text message is UTF-8.
struct WebSocketMessage {
  bool isText = false;
  std::string data;
};

/// One accepted connection. All members may be called from any thread. Handlers run on the
/// transport's executor, one at a time for one connection; they must not block, and should hold
/// their owner weakly. A connection that failed or was cancelled has closed its socket, or does so
/// within seconds, when the peer has read the close frame. Dropping the connection ends it as
/// cancel() does, without a report.
class WebSocketConnection {
 public:
  virtual ~WebSocketConnection() = default;

  using StateHandler = std::function<void(const TransportState&)>;
  using SendErrorHandler = std::function<void(const boost::system::error_code&)>;

  /// Tells peers apart as well as addresses can: the IPv4 address, the /64 network of an IPv6
  /// address (which one machine may have entirely), and one text for all of loopback.
  virtual std::string peer() const = 0;

  /// Begins the upgrade. The connection reports Ready once it is done. Call once. Failed is for
  /// ends of the transport's own making: a handshake that did not succeed, and each
  /// WebSocketError. What goes wrong while receiving is receive()'s to say, and no state, unless
  /// nobody receives (Lost). An error of sending goes to onSendError as well, once.
  virtual void start(StateHandler onState, SendErrorHandler onSendError) = 0;

  /// The next complete message; one call at a time, after Ready; returns on the caller's executor.
  /// An error is final: WebSocketError::peerClosed when the peer closed, the error
  /// that Failed reports, operation_aborted after cancel(), or the system's. The connection then
  /// ends by itself. Nothing is read ahead, so that a peer that sends faster than its messages are
  /// taken has to wait, until a message has been served for a fifth of a second: then up to 64 KiB
  /// and one message are read ahead, which answers pings and shows whether the peer is still there.
  virtual boost::asio::awaitable<boost::system::result<WebSocketMessage>> receive() = 0;

  /// Tells the transport whom it has there. Until then the peer is a stranger.
  virtual void setStanding(Standing standing) = 0;

  /// For answers. Queues a frame and returns at once; before Ready, frames wait for the end of the
  /// handshake. All frames queued until the executor comes to writing leave with one gathered
  /// write. Frames for a connection that is closing or gone are dropped.
  virtual void send(SharedTextFrame frame) = 0;

  /// For events. Queues frames in their order, as send() does, but pays for the queue once for all
  /// of them. On the transport's own executor they are written at once, while they are in the
  /// cache. Takes the frames, but not the storage of the list.
  virtual void sendBurst(std::span<SharedTextFrame> frames) = 0;

  /// Ends the connection: close code 1001 if the peer reads, then the socket is closed, after one
  /// second at the latest. Then reports Cancelled, unless Failed was reported before.
  virtual void cancel() = 0;
};

class WebSocketListener {
 public:
  virtual ~WebSocketListener() = default;

  using StateHandler = std::function<void(const TransportState&)>;
  using ConnectionHandler = std::function<void(std::shared_ptr<WebSocketConnection>)>;

  /// Binds and listens; reports Ready, or Failed with the system's error. Call once.
  virtual void start(StateHandler onState, ConnectionHandler onConnection) = 0;

  /// Stops accepting and frees the port; connections live on. Reports Cancelled.
  virtual void cancel() = 0;
};

/// Makes listeners. Lives longer than all of them.
class WebSocketTransport {
 public:
  virtual ~WebSocketTransport() = default;

  /// False for numbers that are no TCP port of a server (0).
  virtual bool acceptsPort(std::uint16_t port) const = 0;

  virtual boost::system::result<std::shared_ptr<WebSocketListener>> makeListener(
      std::uint16_t port) = 0;
};

/// The transport of this system: IPv6 and IPv4 (IPv4 alone where the machine has no IPv6), address
/// reuse on, any path, no compression.
std::unique_ptr<WebSocketTransport> makeWebSocketTransport(boost::asio::any_io_executor executor,
                                                           WebSocketLimits limits = {},
                                                           WebSocketAccess access = {});

}  // namespace tarnlink

template <>
struct boost::system::is_error_code_enum<tarnlink::WebSocketError> : std::true_type {};
