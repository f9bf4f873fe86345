#include "websocket/websocket_beast.h"

#include <algorithm>
#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <deque>
#include <string>

namespace tarnlink {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using Clock = GatheredStream::Clock;

// An upgrade request may carry a browser's cookies; more is refused with status 431. Octets.
constexpr std::uint32_t kMaxRequestHeader = 16 * 1024;
// From our close frame, or our refusal of the upgrade, to the closing of the socket at the latest:
// closing earlier than the peer has read it would reset the connection and lose it. Milliseconds.
constexpr std::chrono::milliseconds kFarewell{5'000};
// The same when the owner ends the connection, who wants to end as well. Milliseconds.
constexpr std::chrono::milliseconds kCancelFarewell{1'000};
// Octets read and thrown away in one step while waiting for the peer's end.
constexpr std::size_t kDiscardBuffer = 16 * 1024;

// What is read of a message at a time: as much as has come of it, within these bounds. Octets.
constexpr std::size_t kLeastRead = 4096;
constexpr std::size_t kMostRead = 64 * 1024;
// A message that is served for longer than this does not keep us from hearing its sender.
constexpr std::chrono::milliseconds kServing{200};
// Further messages are read ahead meanwhile until they make up so much. Octets.
constexpr std::size_t kReadAhead = 64 * 1024;
// What a report of a failure repeats of the request at most. Octets.
constexpr std::size_t kMaxDetail = 256;

// Characters of a Sec-WebSocket-Key: base64 of 16 octets, the last two of which are padding.
constexpr std::size_t kKeyLength = 24;

constexpr auto kWait = asio::as_tuple(asio::use_awaitable);

// RFC 6455, 4.2.1, as far as the library does not check it: it takes any key that is not too long,
// and the first of several.
bool hasProperKey(const http::request<http::empty_body>& request) {
  const auto count = [&](http::field field) { return request.count(field); };
  if (count(http::field::sec_websocket_key) != 1) return false;
  if (count(http::field::sec_websocket_version) > 1) return false;
  const auto value = request[http::field::sec_websocket_key];
  const std::string_view key(value.data(), value.size());
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto digits = std::min(key.find_first_not_of(kDigits), key.size());
  return key.size() == kKeyLength && key.substr(digits) == "==";
}

// Of text that is UTF-8 so far: whether its last code point lacks octets (RFC 3629, section 3).
bool endsInsideCodePoint(std::string_view text) {
  for (std::size_t octets = 1; octets <= 3 && octets <= text.size(); ++octets) {
    const auto octet = static_cast<unsigned char>(text[text.size() - octets]);
    if (octet < 0x80) return false;
    if (octet >= 0xC0) return octets < (octet >= 0xF0 ? 4u : octet >= 0xE0 ? 3u : 2u);
  }
  return false;
}

/// One connection from accept to the closing of its socket. Keeps itself alive while anything is
/// under way. Everything but send() runs on the strand.
class Session : public std::enable_shared_from_this<Session> {
 public:
  using StateHandler = WebSocketConnection::StateHandler;
  using SendErrorHandler = WebSocketConnection::SendErrorHandler;
  using Received = boost::system::result<WebSocketMessage>;

  Session(GatheredStream::Socket socket, const WebSocketLimits& limits, Admission admission)
      : limits_(limits),
        admission_(std::move(admission)),
        websocket_(std::move(socket), limits.sendQueue, admission_.tls),
        timer_(strand()),
        servingTimer_(strand()),
        changed_(strand(), Clock::time_point::max()) {}

  const std::string& peer() const { return admission_.peer; }
  GatheredStream::executor_type strand() { return stream().get_executor(); }

  void start(StateHandler onState, SendErrorHandler onSendError);
  void setStanding(Standing standing);
  void send(SharedTextFrame frame);
  void sendBurst(std::span<SharedTextFrame> frames);
  void cancel();
  void abandon();
  static asio::awaitable<Received> receive(std::shared_ptr<Session> self);

 private:
  enum class Phase {
    accepted,
    handshake,
    open,
    cancelling,  // the owner ends it: our close frame is on its way
    lingering,   // nothing more to say; waiting for the peer to have read it
    closed,
  };

  GatheredStream& stream() { return websocket_.next_layer(); }

  static asio::awaitable<void> upgrade(std::shared_ptr<Session> self);
  static asio::awaitable<TransportFailed> readRequest(std::shared_ptr<Session> self);
  static asio::awaitable<void> refuse(std::shared_ptr<Session> self, http::status status);
  static asio::awaitable<void> sayGoodbye(std::shared_ptr<Session> self,
                                          websocket::close_code code);
  static asio::awaitable<void> linger(std::shared_ptr<Session> self);
  static asio::awaitable<error_code> readMessage(std::shared_ptr<Session> self,
                                                 WebSocketMessage& message);
  static asio::awaitable<void> readAhead(std::shared_ptr<Session> self);
  static asio::awaitable<void> watch(std::shared_ptr<Session> self);
  static asio::awaitable<void> ping(std::shared_ptr<Session> self);

  void configure();
  bool push(std::span<SharedTextFrame> frames, GatheredStream::Kind kind);
  std::size_t longestMessage() const;
  Received handOut(WebSocketMessage message);
  void watchServing();
  void reportLoss();
  void forgetHandlers();
  error_code refuseCutText();
  error_code endReceiving(error_code error);
  Clock::time_point lastHeard() { return std::max(lastHeard_, stream().lastRead()); }
  Clock::time_point deadline();
  void onDeadline();
  void onIdleDeadline();
  void onWriteFailed(const error_code& error);
  void onCloseQueued();
  void saidAll();
  void endBy(Clock::time_point end);
  void fail(error_code error);
  void report(const TransportState& state);
  void close(bool reset);

  // Runs a member coroutine by itself; none of them lets an exception out but for lack of memory,
  // which ends the connection.
  void spawn(asio::awaitable<void> coroutine) {
    asio::co_spawn(strand(), std::move(coroutine),
                   [self = shared_from_this()](const std::exception_ptr& failure) {
                     if (failure) self->fail(asio::error::no_memory);
                   });
  }

  const WebSocketLimits limits_;
  Admission admission_;
  websocket::stream<GatheredStream, false> websocket_;
  asio::steady_timer timer_;

  Phase phase_ = Phase::accepted;
  Standing standing_ = Standing::stranger;
  Clock::time_point admittedBy_ = Clock::now() + limits_.strangerTime;  // of a stranger
  Clock::duration timeLeft_{};                                          // while it waits
  StateHandler onState_;
  SendErrorHandler onSendError_;
  bool failed_ = false;  // Failed has been reported
  bool cancelled_ = false;
  error_code end_;  // what receive() answers from now on
  bool receiving_ = false;
  bool readingAhead_ = false;
  std::deque<WebSocketMessage> ahead_;  // read ahead, not yet taken
  std::size_t aheadOctets_ = 0;
  asio::steady_timer servingTimer_;
  std::size_t handedOut_ = 0;  // messages
  asio::steady_timer
      changed_;  // never expires: cancelled when what receive() waits for may be there
  bool pinging_ = false;
  Clock::time_point started_;
  Clock::time_point lastHeard_;
  std::optional<Clock::time_point> pingedFor_;  // lastHeard() when the last ping was sent
  std::optional<Clock::time_point> endBy_;      // the socket is closed then, whatever happens
  bool saidAll_ = false;                        // our last octet has gone to the socket
  bool heardAll_ = false;                       // the peer has ended its side
};

void Session::start(StateHandler onState, SendErrorHandler onSendError) {
  onState_ = std::move(onState);
  onSendError_ = std::move(onSendError);
  if (phase_ != Phase::accepted) {
    // Ended before it began.
    if (failed_) {
      report(TransportFailed{end_});
    } else {
      report(TransportCancelled{});
    }
    return;
  }
  phase_ = Phase::handshake;
  started_ = lastHeard_ = Clock::now();
  configure();
  if (admission_.place) {
    admission_.place->onLost([weak = weak_from_this()] {
      if (auto self = weak.lock()) {
        auto& session = *self;
        asio::post(session.strand(),
                   [self = std::move(self)] { self->fail(WebSocketError::madeRoom); });
      }
    });
  }
  spawn(upgrade(shared_from_this()));
  spawn(watch(shared_from_this()));
}

void Session::configure() {
  GatheredStream::Events events;
  events.writeFailed = [this](const error_code& error) { onWriteFailed(error); };
  events.closeQueued = [this] { onCloseQueued(); };
  events.answerSent = [this] { changed_.cancel(); };
  stream().attach(weak_from_this(), std::move(events));
  websocket_.read_message_max(longestMessage());
  websocket_.set_option(websocket::stream_base::decorator([](websocket::response_type& response) {
    response.set(http::field::server, "tarnlink");
    if (response.result() == http::status::switching_protocols) return;
    response.insert(http::field::connection, "close");
    if (response.result() != http::status::upgrade_required) return;
    response.set(http::field::upgrade, "websocket");  // RFC 7231, 6.5.15
    response.insert(http::field::connection, "Upgrade");
  }));
  // RFC 6455, 5.5.1: after the peer's close frame nothing but our own may follow.
  websocket_.control_callback([this](websocket::frame_type kind, boost::beast::string_view) {
    if (kind == websocket::frame_type::close) stream().refuseText();
  });
}

std::size_t Session::longestMessage() const {
  if (standing_ == Standing::admitted) return limits_.incomingMessage;
  return std::min(limits_.strangerMessage, limits_.incomingMessage);
}

void Session::setStanding(Standing standing) {
  const auto now = Clock::now();
  if (standing_ == Standing::stranger) timeLeft_ = admittedBy_ - now;
  admittedBy_ = now + timeLeft_;
  standing_ = standing;
  websocket_.read_message_max(longestMessage());
  if (admission_.place) admission_.place->setStanding(standing);
  timer_.cancel();
}

// ---- Handshake ----

asio::awaitable<void> Session::upgrade(std::shared_ptr<Session> self) {
  const auto failed = co_await readRequest(self);
  if (self->phase_ != Phase::handshake) co_return;
  if (!failed.error) {
    self->phase_ = Phase::open;
    self->lastHeard_ = Clock::now();
    self->timer_.cancel();
    self->stream().open();
    self->report(TransportReady{});
    co_return;
  }
  self->phase_ = Phase::lingering;
  self->end_ = failed.error;
  self->stream().refuseText();
  self->endBy(Clock::now() + kFarewell);
  self->failed_ = true;
  self->report(failed);
  self->saidAll();
  co_await linger(self);
}

using Request = http::request<http::empty_body>;

// RFC 7230, 3.2.2: a field in several lines is one list.
std::string values(const Request& request, http::field field) {
  std::string list;
  const auto [begin, end] = request.equal_range(field);
  for (auto line = begin; line != end; ++line) {
    if (line != begin) list += ", ";
    list += {line->value().data(), line->value().size()};
  }
  return list;
}

// What none of a field's values may violate: a request with several is not a browser's.
template <class Rule>
bool allowsAll(const Request& request, http::field field, const Rule& rule) {
  const auto [begin, end] = request.equal_range(field);
  return std::all_of(begin, end, [&rule](const auto& found) { return rule(found.value()); });
}

TransportFailed refusal(WebSocketError error, std::string_view value) {
  return {error, std::string(value.substr(0, kMaxDetail))};
}

// Why the request is refused, whatever else it says; no error when it is not.
TransportFailed objection(const Admission& admission, const Request& request) {
  if (!admission.place) return {WebSocketError::tooManyClients};
  if (request.count(http::field::origin) == 0) return {};
  const auto& rules = *admission.rules;
  const auto origin = values(request, http::field::origin);
  const auto host = values(request, http::field::host);
  if (!allowsAll(request, http::field::origin,
                 [&rules](auto value) { return rules.allowsOrigin(value); })) {
    return refusal(WebSocketError::originNotAllowed, origin);
  }
  if (!allowsAll(request, http::field::host,
                 [&rules](auto value) { return rules.allowsHost(value); })) {
    return refusal(WebSocketError::hostNotAllowed, host);
  }
  return {};
}

// RFC 7230, 5.4 and 3.3: one Host that names a host, and no body.
bool isWellFormed(const Request& request) {
  const auto host = request[http::field::host];
  if (request.count(http::field::host) != 1 || !isHost({host.data(), host.size()})) return false;
  if (request.count(http::field::transfer_encoding) != 0) return false;
  const auto length = values(request, http::field::content_length);
  return length.find_first_not_of('0') == std::string::npos;
}

// Reads the request and answers it, be it with an upgrade or a refusal.
asio::awaitable<TransportFailed> Session::readRequest(std::shared_ptr<Session> self) {
  boost::beast::flat_buffer buffer(kMaxRequestHeader);
  http::request_parser<http::empty_body> parser;
  parser.header_limit(kMaxRequestHeader);
  auto [error, octets] = co_await http::async_read_header(self->stream(), buffer, parser, kWait);
  const bool tooLong = error == http::error::header_limit || error == http::error::buffer_overflow;
  if (tooLong) {
    co_await refuse(self, http::status::request_header_fields_too_large);
  } else if (error.category() == error_code(http::error::bad_method).category()) {
    co_await refuse(self, http::status::bad_request);
  }
  TransportFailed failed{error};
  if (error) co_return failed;
  auto& request = parser.get();
  failed = objection(self->admission_, request);
  if (failed.error) {
    co_await refuse(self, failed.error == WebSocketError::tooManyClients
                              ? http::status::service_unavailable
                              : http::status::forbidden);
    co_return failed;
  }
  if (!isWellFormed(request) || !hasProperKey(request)) {
    failed.error = isWellFormed(request) ? error_code(websocket::error::bad_sec_key)
                                         : error_code(http::error::bad_value);
    co_await refuse(self, http::status::bad_request);
    co_return failed;
  }
  for (const auto field : {http::field::connection, http::field::upgrade}) {
    if (request.count(field) > 1) request.set(field, values(request, field));
  }
  self->stream().putBack({static_cast<const char*>(buffer.data().data()), buffer.size()});
  std::tie(failed.error) = co_await self->websocket_.async_accept(request, kWait);
  co_return failed;
}

asio::awaitable<void> Session::refuse(std::shared_ptr<Session> self, http::status status) {
  const std::string answer =
      "HTTP/1.1 " + std::to_string(static_cast<unsigned>(status)) + " " +
      std::string(http::obsolete_reason(status)) +
      "\r\nServer: tarnlink\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
  const auto octets = asio::buffer(answer);
  co_await asio::async_write(self->stream(), octets, kWait);
}

// ---- Receiving and sending ----

asio::awaitable<Session::Received> Session::receive(std::shared_ptr<Session> self) {
  self->receiving_ = true;
  self->lastHeard_ = Clock::now();
  while (self->ahead_.empty() && self->readingAhead_) co_await self->changed_.async_wait(kWait);
  WebSocketMessage message;
  error_code error = self->end_;
  if (!error && self->phase_ != Phase::open) error = asio::error::operation_aborted;
  if (!error && !self->ahead_.empty()) {
    message = std::move(self->ahead_.front());
    self->ahead_.pop_front();
    self->aheadOctets_ -= message.data.size();
  } else if (!error) {
    error = co_await readMessage(self, message);
  }
  self->receiving_ = false;
  if (error) co_return error;
  co_return self->handOut(std::move(message));
}

// The buffer grows with what arrives: a header promises as much as it likes.
asio::awaitable<error_code> Session::readMessage(std::shared_ptr<Session> self,
                                                 WebSocketMessage& message) {
  while (self->phase_ == Phase::open &&
         self->stream().unsentAnswers() > self->limits_.unsentAnswers) {
    co_await self->changed_.async_wait(kWait);
  }
  auto buffer = asio::dynamic_buffer(message.data);
  error_code error;
  do {
    const auto most = std::clamp(message.data.size(), kLeastRead, kMostRead);
    std::tie(error, std::ignore) = co_await self->websocket_.async_read_some(buffer, most, kWait);
  } while (!error && !self->websocket_.is_message_done());
  if (error) co_return self->endReceiving(error);
  message.isText = self->websocket_.got_text();
  if (message.isText && endsInsideCodePoint(message.data)) co_return self->refuseCutText();
  co_return error;
}

// ---- While a message is served ----

Session::Received Session::handOut(WebSocketMessage message) {
  ++handedOut_;
  watchServing();
  return message;
}

// One timer for all messages that are served quickly.
void Session::watchServing() {
  if (servingTimer_.expiry() > Clock::now()) return;
  servingTimer_.expires_after(kServing);
  servingTimer_.async_wait([weak = weak_from_this(), before = handedOut_](const auto& cancelled) {
    const auto self = weak.lock();
    if (!self || cancelled || self->phase_ != Phase::open) return;
    if (self->receiving_ || self->readingAhead_) return;
    if (self->handedOut_ == before) {
      self->spawn(readAhead(self));
    } else {
      self->watchServing();
    }
  });
}

asio::awaitable<void> Session::readAhead(std::shared_ptr<Session> self) {
  self->readingAhead_ = true;
  while (!self->receiving_ && self->phase_ == Phase::open && self->aheadOctets_ < kReadAhead) {
    WebSocketMessage message;
    const auto error = co_await readMessage(self, message);
    if (error) break;
    self->aheadOctets_ += message.data.size();
    self->ahead_.push_back(std::move(message));
  }
  self->readingAhead_ = false;
  self->changed_.cancel();
  if (self->end_) self->reportLoss();
}

// The library looks for the end of a code point with the last octets of a message only: an empty
// last fragment goes past it.
error_code Session::refuseCutText() {
  if (end_) return end_;
  end_ = websocket::error::bad_frame_payload;
  if (phase_ == Phase::open) {
    phase_ = Phase::lingering;
    stream().hurry();
    endBy(Clock::now() + kFarewell);
    spawn(sayGoodbye(shared_from_this(), websocket::close_code::bad_payload));
  }
  return end_;
}

// A read has failed: says what receive() answers, and sees to the end of the socket.
error_code Session::endReceiving(error_code error) {
  if (end_) return end_;
  if (error == websocket::error::closed) error = WebSocketError::peerClosed;
  end_ = error;
  if (phase_ != Phase::open) return end_;
  phase_ = Phase::lingering;
  if (endBy_) {
    // A close frame went out, ours or the answer to the peer's.
    saidAll();
  } else {
    close(false);
  }
  return end_;
}

void Session::send(SharedTextFrame frame) {
  if (push({&frame, 1}, GatheredStream::Kind::answer)) {
    asio::post(strand(), [self = shared_from_this()] { self->stream().drain(); });
  }
}

void Session::sendBurst(std::span<SharedTextFrame> frames) {
  if (!frames.empty() && push(frames, GatheredStream::Kind::event)) {
    asio::dispatch(strand(), [self = shared_from_this()] { self->stream().drain(); });
  }
}

// True when the queue was idle, so that somebody has to make it drain.
bool Session::push(std::span<SharedTextFrame> frames, GatheredStream::Kind kind) {
  const auto pushed = stream().push(frames, kind);
  if (pushed == GatheredStream::Push::overflow) {
    asio::post(strand(),
               [self = shared_from_this()] { self->fail(WebSocketError::sendQueueFull); });
  }
  return pushed == GatheredStream::Push::acceptedWhileIdle;
}

void Session::onWriteFailed(const error_code& error) {
  if (phase_ == Phase::open && onSendError_) onSendError_(error);
  if (!end_) end_ = error;
  close(false);
  reportLoss();
}

// Somebody who receives is told by receive().
void Session::reportLoss() {
  if (!receiving_ && !failed_ && !cancelled_) report(TransportLost{end_});
}

// ---- Deadlines ----

// Sleeps until the nearest deadline; whoever moves it cancels the timer.
asio::awaitable<void> Session::watch(std::shared_ptr<Session> self) {
  while (self->phase_ != Phase::closed) {
    const auto next = self->deadline();
    self->timer_.expires_at(next);
    co_await self->timer_.async_wait(kWait);
    if (self->phase_ != Phase::closed && self->deadline() <= Clock::now()) self->onDeadline();
  }
}

Clock::time_point Session::deadline() {
  if (endBy_) return *endBy_;
  auto next = lastHeard() + (pingedFor_ == lastHeard() ? limits_.idle : limits_.idle / 2);
  if (phase_ == Phase::handshake) next = started_ + limits_.handshake;
  return standing_ == Standing::stranger ? std::min(next, admittedBy_) : next;
}

void Session::onDeadline() {
  if (endBy_) {
    if (!end_) end_ = asio::error::timed_out;
    close(false);
  } else if (standing_ == Standing::stranger && admittedBy_ <= Clock::now()) {
    fail(WebSocketError::notAdmitted);
  } else if (phase_ == Phase::handshake) {
    fail(WebSocketError::handshakeTimeout);
  } else {
    onIdleDeadline();
  }
}

void Session::onIdleDeadline() {
  if (!receiving_ && !readingAhead_) {
    // Nobody listens at the moment, so the peer's silence means nothing.
    lastHeard_ = Clock::now();
    return;
  }
  if (pingedFor_ == lastHeard()) {
    fail(WebSocketError::idleTimeout);
    return;
  }
  pingedFor_ = lastHeard();
  if (!pinging_) spawn(ping(shared_from_this()));
}

asio::awaitable<void> Session::ping(std::shared_ptr<Session> self) {
  self->pinging_ = true;
  const websocket::ping_data payload;
  co_await self->websocket_.async_ping(payload, kWait);
  self->pinging_ = false;
}

// ---- Ending ----

void Session::cancel() {
  if (std::exchange(cancelled_, true)) return;
  switch (phase_) {
    case Phase::accepted:
    case Phase::handshake:
      close(false);
      break;
    case Phase::open:
      phase_ = Phase::cancelling;
      endBy(Clock::now() + kCancelFarewell);
      changed_.cancel();
      spawn(sayGoodbye(shared_from_this(), websocket::close_code::going_away));
      break;
    case Phase::cancelling:
      break;
    case Phase::lingering:
    case Phase::closed:
      // Over already; a close frame on its way to the peer keeps its time.
      report(TransportCancelled{});
      break;
  }
}

void Session::abandon() {
  if (cancelled_) return;
  forgetHandlers();
  cancel();
}

void Session::forgetHandlers() {
  onState_ = nullptr;
  onSendError_ = nullptr;
}

asio::awaitable<void> Session::sayGoodbye(std::shared_ptr<Session> self,
                                          websocket::close_code code) {
  const websocket::close_reason reason(code);
  co_await self->websocket_.async_close(reason, kWait);
  self->saidAll();
  co_await linger(self);
}

// The library answers the peer's close frame, or fails the connection, and reads no more. The peer
// may be busy sending while our road to it is full: unless its octets are read away, it never comes
// to reading, and the close frame never goes out.
void Session::onCloseQueued() {
  endBy(Clock::now() + kFarewell);
  if (phase_ != Phase::open) return;
  stream().hurry();
  spawn(linger(shared_from_this()));
}

void Session::saidAll() {
  saidAll_ = true;
  stream().finish();
  if (heardAll_) close(false);
}

// RFC 6455, 7.1.1. Unread octets would make the kernel answer our closing with a reset, which can
// overtake the close frame; so they are read away until the peer closes or time is up.
asio::awaitable<void> Session::linger(std::shared_ptr<Session> self) {
  auto& stream = self->stream();
  error_code error;
  std::array<char, kDiscardBuffer> discarded;
  const auto buffer = asio::buffer(discarded);
  while (!error && stream.socket().is_open()) {
    std::tie(error, std::ignore) = co_await stream.async_read_some(buffer, kWait);
  }
  self->heardAll_ = true;
  if (self->saidAll_) self->close(false);
}

void Session::endBy(Clock::time_point end) {
  if (endBy_ && *endBy_ <= end) return;
  endBy_ = end;
  timer_.cancel();
}

// Ends the connection for a reason of the transport's own.
void Session::fail(error_code error) {
  if (failed_ || phase_ == Phase::closed) return;
  if (!end_) end_ = error;
  close(error == WebSocketError::sendQueueFull || error == WebSocketError::idleTimeout);
  failed_ = true;
  if (!cancelled_) report(TransportFailed{error});
}

void Session::close(bool reset) {
  if (phase_ == Phase::closed) return;
  phase_ = Phase::closed;
  if (!end_) end_ = asio::error::operation_aborted;
  stream().close(reset);
  admission_.place.reset();
  admission_.refusal.reset();
  timer_.cancel();
  servingTimer_.cancel();
  changed_.cancel();
  if (cancelled_) report(TransportCancelled{});
}

void Session::report(const TransportState& state) {
  if (!onState_) return;
  if (std::holds_alternative<TransportReady>(state)) {
    const auto handler = onState_;  // may drop the connection, and with it the handler
    handler(state);
    return;
  }
  const auto handler = std::move(onState_);
  forgetHandlers();
  handler(state);
}

/// The owner's end of a session.
class Connection final : public WebSocketConnection {
 public:
  explicit Connection(std::shared_ptr<Session> session) : session_(std::move(session)) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  ~Connection() override {
    asio::post(session_->strand(), [session = session_] { session->abandon(); });
  }

  std::string peer() const override { return session_->peer(); }

  void start(StateHandler onState, SendErrorHandler onSendError) override {
    asio::post(session_->strand(), [session = session_, onState = std::move(onState),
                                    onSendError = std::move(onSendError)]() mutable {
      session->start(std::move(onState), std::move(onSendError));
    });
  }

  asio::awaitable<boost::system::result<WebSocketMessage>> receive() override {
    return receiveFrom(session_);
  }

  void setStanding(Standing standing) override {
    asio::post(session_->strand(),
               [session = session_, standing] { session->setStanding(standing); });
  }

  void send(SharedTextFrame frame) override { session_->send(std::move(frame)); }
  void sendBurst(std::span<SharedTextFrame> frames) override { session_->sendBurst(frames); }

  void cancel() override {
    asio::post(session_->strand(), [session = session_] { session->cancel(); });
  }

 private:
  static asio::awaitable<boost::system::result<WebSocketMessage>> receiveFrom(
      std::shared_ptr<Session> session) {
    const auto strand = session->strand();
    auto onStrand = Session::receive(std::move(session));
    co_return co_await asio::co_spawn(strand, std::move(onStrand), asio::use_awaitable);
  }

  const std::shared_ptr<Session> session_;
};

}  // namespace

std::shared_ptr<WebSocketConnection> makeWebSocketConnection(GatheredStream::Socket socket,
                                                             const WebSocketLimits& limits,
                                                             Admission admission) {
  return std::make_shared<Connection>(
      std::make_shared<Session>(std::move(socket), limits, std::move(admission)));
}

}  // namespace tarnlink
