#include "websocket/session.h"

#include <algorithm>
#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/websocket/error.hpp>
#include <utility>

#include "websocket/beast_stream.h"
#include "websocket/inbox.h"
#include "websocket/session_deadlines.h"

namespace tarnlink {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = ConnectionStream::Clock;

// From our close frame, or our refusal of the upgrade, to the closing of the socket at the latest:
// closing earlier than the peer has read it would reset the connection and lose it. Milliseconds.
constexpr std::chrono::milliseconds kCloseTimeout{5'000};
// The same when the owner ends the connection, who wants to end as well. Milliseconds.
constexpr std::chrono::milliseconds kCancelTimeout{1'000};
// Octets read and thrown away in one step while waiting for the peer's end.
constexpr std::size_t kDiscardBuffer = 16 * 1024;

// RFC 6455, 7.4.1.
constexpr std::uint16_t kGoingAway = 1001;
constexpr std::uint16_t kBadPayload = 1007;

constexpr auto kWait = asio::as_tuple(asio::use_awaitable);

/// One connection from accept to the closing of its socket. Keeps itself alive while anything is
/// under way. The port's members may be called on any thread, all else runs on the strand.
class Session final : public WebSocketConnection,
                      public std::enable_shared_from_this<Session>,
                      private ConnectionStream::Owner {
 public:
  Session(ConnectionStream::Socket socket, const WebSocketLimits& limits, Admission admission)
      : limits_(limits),
        admission_(std::move(admission)),
        beast_(std::move(socket), limits.sendQueue, admission_.tls, *this),
        inbox_(strand(), stream().queue(), limits.unsentAnswers),
        deadlines_(limits, Clock::now()),
        timer_(strand()) {
    beast_.setLongestMessage(limits.strangerMessage);
  }

  std::string peer() const override { return admission_.peer; }

  void start(StateHandler onState, SendErrorHandler onSendError) override {
    onStrand([onState = std::move(onState),
              onSendError = std::move(onSendError)](Session& self) mutable {
      self.begin(std::move(onState), std::move(onSendError));
    });
  }
  asio::awaitable<Inbox::Received> receive() override { return receiveFrom(shared_from_this()); }
  void setStanding(Standing standing) override {
    onStrand([standing](Session& self) { self.changeStanding(standing); });
  }
  void send(SharedTextFrame frame) override {
    if (push({&frame, 1}, WriteQueue::Kind::answer)) {
      onStrand([](Session& self) { self.stream().drain(); });
    }
  }
  void sendBurst(std::span<SharedTextFrame> frames) override {
    if (!frames.empty() && push(frames, WriteQueue::Kind::event)) {
      asio::dispatch(strand(), [self = shared_from_this()] { self->stream().drain(); });
    }
  }
  void cancel() override {
    onStrand([](Session& self) { self.endByOwner(); });
  }

  /// The owner is gone.
  void abandon() {
    onStrand([](Session& self) {
      if (self.isCancelled_) return;
      self.forgetHandlers();
      self.endByOwner();
    });
  }

  /// From now on the connection ends when a newcomer gets its place.
  void watchPlace() {
    if (!admission_.place) return;
    admission_.place->onLost([weak = weak_from_this()] {
      if (auto self = weak.lock()) {
        auto& session = *self;
        asio::post(session.strand(),
                   [self = std::move(self)] { self->fail(WebSocketError::madeRoom); });
      }
    });
  }

 private:
  enum class Phase {
    accepted,
    handshake,
    open,
    closing,  // our last octets are on their way, or wait for the peer to have read them
    closed,
  };

  ConnectionStream& stream() { return beast_.stream(); }
  asio::any_io_executor strand() { return stream().get_executor(); }

  template <class Action>
  void onStrand(Action action) {
    asio::post(strand(), [self = shared_from_this(), action = std::move(action)]() mutable {
      action(*self);
    });
  }

  // Runs a member coroutine by itself; none of them lets an exception out but for lack of memory,
  // which ends the connection.
  void spawn(asio::awaitable<void> coroutine) {
    asio::co_spawn(strand(), std::move(coroutine),
                   [self = shared_from_this()](const std::exception_ptr& failure) {
                     if (failure) self->fail(asio::error::no_memory);
                   });
  }

  void onWriteFailed(const error_code& error) override;
  void onCloseQueued() override;
  void onAnswersSent() override { inbox_.reconsider(); }
  std::shared_ptr<void> keepAlive() override { return weak_from_this().lock(); }

  void begin(StateHandler onState, SendErrorHandler onSendError);
  void changeStanding(Standing standing);
  bool push(std::span<SharedTextFrame> frames, WriteQueue::Kind kind);
  static asio::awaitable<Inbox::Received> receiveFrom(std::shared_ptr<Session> self) {
    co_return co_await asio::co_spawn(self->strand(), self->inbox_.receive(), asio::use_awaitable);
  }
  asio::awaitable<void> upgrade();
  asio::awaitable<void> readMessages();
  asio::awaitable<void> watchDeadlines();
  void meet(SessionDeadlines::Due due);
  asio::awaitable<void> ping() {
    co_await beast_.ping();
    isPinging_ = false;
  }
  void endByOwner();
  void onReadFailed(const error_code& error);
  void startClosing(std::chrono::milliseconds timeout) {
    phase_ = Phase::closing;
    closeBy(timeout);
  }
  asio::awaitable<void> closeInOrder(std::uint16_t code);
  asio::awaitable<void> discardToEnd();
  void saidAll();
  void closeBy(std::chrono::milliseconds timeout) {
    deadlines_.closeBy(Clock::now() + timeout);
    timer_.cancel();
  }
  void fail(const error_code& error);
  void close(bool reset);
  void report(const TransportState& state);
  void forgetHandlers() {
    onState_ = nullptr;
    onSendError_ = nullptr;
  }

  const WebSocketLimits limits_;
  Admission admission_;
  BeastStream beast_;
  Inbox inbox_;
  SessionDeadlines deadlines_;
  asio::steady_timer timer_;  // until the next deadline; cancelled when they change
  Phase phase_ = Phase::accepted;
  StateHandler onState_;
  SendErrorHandler onSendError_;
  bool isCancelled_ = false;
  bool isPinging_ = false;
  bool hasSaidAll_ = false;   // our last octet has gone to the socket
  bool hasHeardAll_ = false;  // the peer has ended its side
};

void Session::begin(StateHandler onState, SendErrorHandler onSendError) {
  onState_ = std::move(onState);
  onSendError_ = std::move(onSendError);
  if (phase_ != Phase::accepted) {
    // Ended before it began.
    if (isCancelled_) return report(TransportCancelled{});
    return report(TransportFailed{inbox_.whyEnded()});
  }
  phase_ = Phase::handshake;
  spawn(upgrade());
  spawn(watchDeadlines());
}

void Session::changeStanding(Standing standing) {
  deadlines_.setStanding(standing, Clock::now());
  const bool isAdmitted = standing == Standing::admitted;
  beast_.setLongestMessage(isAdmitted ? limits_.incomingMessage : limits_.strangerMessage);
  if (admission_.place) admission_.place->setStanding(standing);
  timer_.cancel();
}

asio::awaitable<void> Session::upgrade() {
  auto verdict = co_await beast_.upgrade(admission_.place ? admission_.rules.get() : nullptr);
  if (phase_ != Phase::handshake) co_return;
  if (!verdict.error) {
    phase_ = Phase::open;
    deadlines_.upgraded(Clock::now());
    timer_.cancel();
    stream().open();
    spawn(readMessages());
    co_return report(TransportReady{});
  }
  startClosing(kCloseTimeout);
  inbox_.end(verdict.error);
  stream().refuseText();
  report(TransportFailed{verdict.error, std::move(verdict.detail)});
  saidAll();
  co_await discardToEnd();
}

// ---- Messages ----

asio::awaitable<void> Session::readMessages() {
  while (co_await inbox_.wantsMessage()) {
    auto message = co_await beast_.readMessage();
    if (!message) co_return onReadFailed(message.error());
    inbox_.put(*std::move(message));
  }
}

// True when the queue was idle, so that somebody has to make it drain.
bool Session::push(std::span<SharedTextFrame> frames, WriteQueue::Kind kind) {
  const auto pushed = stream().queue().push(frames, kind);
  if (pushed == WriteQueue::Push::overflow) {
    onStrand([](Session& self) { self.fail(WebSocketError::sendQueueFull); });
  }
  return pushed == WriteQueue::Push::acceptedWhileIdle;
}

// ---- Deadlines ----

asio::awaitable<void> Session::watchDeadlines() {
  while (phase_ != Phase::closed) {
    timer_.expires_at(deadlines_.next(stream().lastRead()));
    co_await timer_.async_wait(kWait);
    if (phase_ == Phase::closed) break;
    meet(deadlines_.due(Clock::now(), stream().lastRead(), inbox_.isListening()));
  }
}

void Session::meet(SessionDeadlines::Due due) {
  using Due = SessionDeadlines::Due;
  switch (due) {
    case Due::nothing:
      break;
    case Due::ping:
      if (!std::exchange(isPinging_, true)) spawn(ping());
      break;
    case Due::idleTimeout:
      return fail(WebSocketError::idleTimeout);
    case Due::handshakeTimeout:
      return fail(WebSocketError::handshakeTimeout);
    case Due::notAdmitted:
      return fail(WebSocketError::notAdmitted);
    case Due::close:
      inbox_.end(asio::error::timed_out);
      return close(false);
  }
}

// ---- Ending ----

void Session::endByOwner() {
  if (std::exchange(isCancelled_, true)) return;
  inbox_.end(asio::error::operation_aborted);
  if (phase_ == Phase::accepted || phase_ == Phase::handshake) return close(false);
  // Otherwise over already; a close frame on its way to the peer keeps its time.
  if (phase_ != Phase::open) return report(TransportCancelled{});
  startClosing(kCancelTimeout);
  spawn(closeInOrder(kGoingAway));
}

// A read has failed: tells whoever receives, and sees to the end of the socket.
void Session::onReadFailed(const error_code& error) {
  if (phase_ != Phase::open) return;
  const bool isLost = !inbox_.isAwaited();
  inbox_.end(error);
  if (deadlines_.isClosing()) {
    // A close frame went out, ours or the answer to the peer's.
    phase_ = Phase::closing;
    saidAll();
  } else if (error == boost::beast::websocket::error::bad_frame_payload) {
    startClosing(kCloseTimeout);
    spawn(closeInOrder(kBadPayload));
  } else {
    close(false);
  }
  if (isLost) report(TransportLost{error});
}

void Session::onWriteFailed(const error_code& error) {
  if (phase_ == Phase::handshake) return fail(error);
  const bool isLost = phase_ == Phase::open && !inbox_.isAwaited();
  if (phase_ == Phase::open && onSendError_) onSendError_(error);
  inbox_.end(error);
  close(false);
  if (isLost) report(TransportLost{error});
}

// The library answers the peer's close frame, or fails the connection, and reads no more. The peer
// may be busy sending while its way to us is full: unless its octets are read away, it never comes
// to reading, and the close frame never goes out.
void Session::onCloseQueued() {
  closeBy(kCloseTimeout);
  if (!isCancelled_) stream().refuseWaitingText();
  if (phase_ == Phase::open) spawn(discardToEnd());
}

asio::awaitable<void> Session::closeInOrder(std::uint16_t code) {
  co_await beast_.close(code);
  saidAll();
  co_await discardToEnd();
}

void Session::saidAll() {
  hasSaidAll_ = true;
  stream().finish();
  if (hasHeardAll_) close(false);
}

// RFC 6455, 7.1.1. Unread octets would make the kernel answer our closing with a reset, which can
// overtake the close frame; so they are read away until the peer closes or time is up.
asio::awaitable<void> Session::discardToEnd() {
  std::array<char, kDiscardBuffer> discarded;
  const auto buffer = asio::buffer(discarded);
  while (stream().isOpen()) {
    const auto [error, octets] = co_await stream().async_read_some(buffer, kWait);
    if (error) break;
  }
  hasHeardAll_ = true;
  if (hasSaidAll_) close(false);
}

// Ends the connection for a reason of the transport's own.
void Session::fail(const error_code& error) {
  if (phase_ == Phase::closed) return;
  inbox_.end(error);
  close(error == WebSocketError::sendQueueFull || error == WebSocketError::idleTimeout);
  report(TransportFailed{error});
}

void Session::close(bool reset) {
  if (phase_ == Phase::closed) return;
  phase_ = Phase::closed;
  inbox_.end(asio::error::operation_aborted);
  stream().close(reset);
  admission_.place.reset();
  admission_.refusal.reset();
  timer_.cancel();
  if (isCancelled_) report(TransportCancelled{});
}

void Session::report(const TransportState& state) {
  const auto handler = onState_;  // may drop the connection, and with it the handler
  if (!std::holds_alternative<TransportReady>(state)) forgetHandlers();
  if (handler) handler(state);
}

}  // namespace

std::shared_ptr<WebSocketConnection> makeSession(ConnectionStream::Socket socket,
                                                 const WebSocketLimits& limits,
                                                 Admission admission) {
  auto session = std::make_shared<Session>(std::move(socket), limits, std::move(admission));
  session->watchPlace();
  WebSocketConnection* const owned = session.get();
  return {owned, [session = std::move(session)](auto*) mutable {
            std::exchange(session, nullptr)->abandon();
          }};
}

}  // namespace tarnlink
