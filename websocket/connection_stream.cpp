#include "websocket/connection_stream.h"

namespace tarnlink {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

// Writes in a row before other connections get their chance.
constexpr int kWritesInARow = 16;

// RFC 6455, 5.2: the low four bits of a frame's first octet are its opcode, 8 is close.
bool isCloseFrame(std::string_view frame) {
  return !frame.empty() && (static_cast<unsigned char>(frame[0]) & 0x0F) == 8;
}

// RFC 6455, 7.4: codes from here on have no meaning and nobody may send them. The library takes
// them from the peer and would echo them.
constexpr unsigned kCodesEnd = 5000;
constexpr unsigned kProtocolError = 1002;

// The code of an unmasked close frame is in its third and fourth octet.
void mendCloseCode(std::string& frame) {
  if (frame.size() < 4) return;
  const auto octet = [&](std::size_t at) { return static_cast<unsigned char>(frame[at]); };
  if ((octet(2) * 256u + octet(3)) < kCodesEnd) return;
  frame[2] = static_cast<char>(kProtocolError >> 8);
  frame[3] = static_cast<char>(kProtocolError & 0xFF);
}

}  // namespace

ConnectionStream::ConnectionStream(Socket socket, std::size_t queueLimit,
                                   std::shared_ptr<const TlsContext> tls, Owner& owner)
    : socket_(std::move(socket)),
      tls_(tls ? std::make_unique<TlsChannel>(std::move(tls), socket_.native_handle()) : nullptr),
      owner_(owner),
      queue_(queueLimit) {
  error_code ignored;  // a socket that is gone fails at the first operation
  socket_.non_blocking(true, ignored);
}

void ConnectionStream::open() {
  queue_.open();
  drain();
}

// Posted: an operation must not complete inside the call that begins it.
void ConnectionStream::complete(Handler handler, error_code error, std::size_t octets) {
  asio::post(get_executor(), [handler = std::move(handler), error, octets]() mutable {
    std::move(handler)(error, octets);
  });
}

void ConnectionStream::read(asio::mutable_buffer room, Handler handler) {
  error_code error;
  std::size_t octets = 0;
  if (!isOpen()) {
    error = asio::error::operation_aborted;  // Its number may be another socket's by now.
  } else if (!putBack_.empty()) {
    octets = asio::buffer_copy(room, asio::buffer(putBack_));
    putBack_.erase(0, octets);
  } else {
    octets = tls_ ? tls_->read(room, error) : socket_.read_some(asio::buffer(room), error);
  }
  if (error != asio::error::would_block) {
    complete(std::move(handler), error, octets);
    return;
  }
  socket_.async_wait(tls_ ? tls_->readWaitsFor() : Socket::wait_read,
                     [this, room, handler = std::move(handler)](error_code failed) mutable {
                       if (failed) {
                         complete(std::move(handler), failed, 0);
                       } else {
                         read(room, std::move(handler));
                       }
                     });
}

void ConnectionStream::write(std::string octets, Handler handler) {
  if (!isOpen()) {
    // The answer to something that was read before a failed write closed the socket.
    complete(std::move(handler), asio::error::operation_aborted, 0);
    return;
  }
  written_ = std::move(octets);
  onWritten_.swap(handler);  // Asio 1.26 cannot assign it.
  const bool closes = queue_.isOpen() && isCloseFrame(written_);
  if (closes) mendCloseCode(written_);
  const bool isIdle = queue_.pushProtocol(written_, closes);
  if (closes) owner_.onCloseQueued();
  if (isIdle) drainLater();
}

void ConnectionStream::drainLater() {
  asio::post(get_executor(), [this, owner = owner_.keepAlive()] {
    if (owner) drain();
  });
}

void ConnectionStream::drain() {
  for (int writes = 0; writes < kWritesInARow; ++writes) {
    WriteQueue::Buffers buffers;
    const auto next = isOpen() ? queue_.gather(buffers) : std::span(buffers).first(0);
    if (next.empty()) return;
    error_code error;
    const auto taken = tls_ ? tls_->write(next, error) : socket_.write_some(next, error);
    if (error && error != asio::error::would_block) return fail(error);
    const auto finished = queue_.written(taken);
    if (finished.hasProtocol) complete(std::move(onWritten_), {}, written_.size());
    if (finished.hasAnswers) owner_.onAnswersSent();
    const bool isFull = !tls_ && taken < asio::buffer_size(next);
    if (error || isFull) return waitWritable();
  }
  drainLater();
}

void ConnectionStream::waitWritable() {
  isStalled_ = true;
  if (refusesWaitingText_) refuseText();
  socket_.async_wait(tls_ ? tls_->writeWaitsFor() : Socket::wait_write,
                     [this, owner = owner_.keepAlive()](const error_code& error) {
                       isStalled_ = false;
                       if (!owner || !isOpen()) return;
                       if (error) {
                         fail(error);
                       } else {
                         drain();
                       }
                     });
}

void ConnectionStream::refuseWaitingText() {
  refusesWaitingText_ = true;
  if (isStalled_) refuseText();
}

void ConnectionStream::finish() {
  error_code ignored;
  if (!tls_ || !isOpen() || tls_->sendCloseNotify()) {
    socket_.shutdown(Socket::shutdown_send, ignored);
    return;
  }
  socket_.async_wait(tls_->writeWaitsFor(), [this, owner = owner_.keepAlive()](const auto& error) {
    if (owner && !error) finish();
  });
}

void ConnectionStream::close(bool reset) {
  error_code ignored;
  if (reset) socket_.set_option(asio::socket_base::linger(true, 0), ignored);
  socket_.close(ignored);
  queue_.clear();
  if (onWritten_) complete(std::move(onWritten_), asio::error::operation_aborted, 0);
}

void ConnectionStream::fail(const error_code& error) {
  if (onWritten_) complete(std::move(onWritten_), error, 0);
  close(false);
  owner_.onWriteFailed(error);
}

}  // namespace tarnlink
