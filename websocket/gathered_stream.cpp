#include "websocket/gathered_stream.h"

#include <algorithm>

namespace tarnlink {
namespace {

// Writes in a row before other connections get their turn.
constexpr int kWritesPerTurn = 16;
// Emptied queues above this capacity give their memory back. Frames.
constexpr std::size_t kKeptCapacity = 4096;

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

GatheredStream::GatheredStream(Socket socket, std::size_t queueLimit,
                               std::shared_ptr<const TlsContext> tls)
    : socket_(std::move(socket)),
      tls_(tls ? std::make_unique<TlsChannel>(std::move(tls), socket_.native_handle()) : nullptr),
      queueLimit_(queueLimit) {
  boost::system::error_code ignored;  // a socket that is gone fails at the first operation
  socket_.non_blocking(true, ignored);
}

void GatheredStream::attach(std::weak_ptr<void> owner, Events events) {
  owner_ = std::move(owner);
  events_ = std::move(events);
}

GatheredStream::Push GatheredStream::push(std::span<SharedTextFrame> frames, Kind kind) {
  Items freed;  // outside the lock
  const std::lock_guard lock(mutex_);
  if (refusesText_) return Push::dropped;
  if (pending_.capacity() == 0) pending_.swap(spareStorage());
  std::size_t added = 0;
  for (SharedTextFrame& frame : frames) {
    added += frame->footprint();
    const std::string_view octets(frame->data(), frame->size());
    pending_.push_back({std::move(frame), octets, kind});
  }
  if (queuedMemory_ + added > queueLimit_) {
    refusesText_ = true;
    freed.swap(pending_);
    return Push::overflow;
  }
  queuedMemory_ += added;
  if (kind == Kind::answer) answerMemory_ += added;
  return std::exchange(draining_, true) ? Push::accepted : Push::acceptedWhileIdle;
}

void GatheredStream::open() {
  open_ = true;
  drain();
}

void GatheredStream::readTls(boost::asio::mutable_buffer room, std::unique_ptr<Operation> read) {
  boost::system::error_code error;
  const auto octets = tls_->read(room, error);
  if (error != boost::asio::error::would_block) {
    read->complete(get_executor(), error, octets);
    return;
  }
  socket_.async_wait(tls_->readWaitsFor(), [this, room, read = std::move(read)](
                                               const boost::system::error_code& failed) mutable {
    if (failed) {
      read->complete(get_executor(), failed, 0);
    } else {
      readTls(room, std::move(read));
    }
  });
}

// Before frames may flow: the answer to the handshake.
void GatheredStream::writeTls() {
  const boost::asio::const_buffer octets = boost::asio::buffer(libraryOctets_);
  boost::system::error_code error;
  const auto taken = tls_->write({&octets, 1}, error);
  if (error != boost::asio::error::would_block) {
    completeLibraryWrite(error, taken);
    return;
  }
  socket_.async_wait(tls_->writeWaitsFor(), [this, owner = owner_.lock()](const auto& failed) {
    if (owner && !failed) writeTls();
  });
}

void GatheredStream::queueLibraryOctets() {
  const bool closes = isCloseFrame(libraryOctets_);
  if (closes) mendCloseCode(libraryOctets_);
  bool idle = false;
  {
    const std::lock_guard lock(mutex_);
    pending_.push_back({nullptr, libraryOctets_, Kind::event});
    idle = !std::exchange(draining_, true);
    if (closes) refusesText_ = true;
  }
  if (closes && events_.closeQueued) events_.closeQueued();
  if (!idle) return;
  // Not from here: an operation must not complete inside the call that begins it.
  boost::asio::post(get_executor(), [this, owner = owner_.lock()] {
    if (owner) drain();
  });
}

// The storage of a queue that was emptied on this thread. The next client's burst goes through it
// while it is in the cache, and silent clients keep none.
GatheredStream::Items& GatheredStream::spareStorage() {
  thread_local Items spare;
  return spare;
}

bool GatheredStream::refill() {
  if (next_ < writing_.size()) return true;
  next_ = 0;
  writing_.clear();
  const bool isWorthKeeping = writing_.capacity() > spareStorage().capacity();
  if (isWorthKeeping && writing_.capacity() <= kKeptCapacity) writing_.swap(spareStorage());
  Items().swap(writing_);
  const std::lock_guard lock(mutex_);
  writing_.swap(pending_);
  draining_ = !writing_.empty();
  return draining_;
}

GatheredStream::Gathered GatheredStream::gather(Buffers& buffers) const {
  Gathered gathered;
  const auto count = std::min(writing_.size() - next_, buffers.size());
  for (std::size_t i = 0; i < count; ++i) {
    const auto octets = writing_[next_ + i].octets;
    buffers[i] = boost::asio::const_buffer(octets.data(), octets.size());
    gathered.octets += octets.size();
  }
  gathered.buffers = std::span(buffers).first(count);
  return gathered;
}

void GatheredStream::drain() {
  for (int turn = 0; turn < kWritesPerTurn; ++turn) {
    if (!socket_.is_open() || !refill()) return;
    Buffers buffers;
    const auto gathered = gather(buffers);
    boost::system::error_code error;
    const auto taken =
        tls_ ? tls_->write(gathered.buffers, error) : socket_.write_some(gathered.buffers, error);
    const bool isFull = !tls_ && !error && taken < gathered.octets;
    if (error == boost::asio::error::would_block || isFull) {
      written(taken);
      waitWritable();
      return;
    }
    if (error) {
      fail(error);
      return;
    }
    written(taken);
  }
  boost::asio::post(get_executor(), [this, owner = owner_.lock()] {
    if (owner) drain();
  });
}

void GatheredStream::written(std::size_t octets) {
  while (octets > 0) {
    auto& item = writing_[next_];
    const auto part = std::min(octets, item.octets.size());
    item.octets.remove_prefix(part);
    octets -= part;
    if (!item.octets.empty()) return;
    if (item.frame) {
      const auto freed = item.frame->footprint();
      item.frame.reset();
      queuedMemory_ -= freed;
      if (item.kind == Kind::answer) {
        answerMemory_ -= freed;
        if (events_.answerSent) events_.answerSent();
      }
    } else {
      completeLibraryWrite({}, libraryOctets_.size());
    }
    ++next_;
  }
}

void GatheredStream::waitWritable() {
  stalled_ = true;
  if (hurries_) refuseText();
  socket_.async_wait(tls_ ? tls_->writeWaitsFor() : Socket::wait_write,
                     [this, owner = owner_.lock()](const boost::system::error_code& error) {
                       stalled_ = false;
                       if (!owner || !socket_.is_open()) return;
                       if (error) {
                         fail(error);
                       } else {
                         drain();
                       }
                     });
}

void GatheredStream::refuseText() {
  const auto isText = [](const Item& item) { return item.frame != nullptr; };
  const std::lock_guard lock(mutex_);
  refusesText_ = true;
  // Half a frame on the wire has to be finished, and so has a TLS record.
  const auto isBegun = [](const Item& item) {
    return item.frame != nullptr && item.octets.size() < item.frame->size();
  };
  auto committed = tls_ ? tls_->committed() : 0;
  auto first = writing_.begin() + static_cast<std::ptrdiff_t>(next_);
  std::size_t kept = 0;
  std::size_t keptAnswers = 0;
  for (; first != writing_.end() && (committed > 0 || isBegun(*first)); ++first) {
    committed -= std::min(committed, first->octets.size());
    if (!first->frame) continue;
    kept += first->frame->footprint();
    if (first->kind == Kind::answer) keptAnswers += first->frame->footprint();
  }
  writing_.erase(std::remove_if(first, writing_.end(), isText), writing_.end());
  std::erase_if(pending_, isText);
  queuedMemory_ = kept;
  answerMemory_ = keptAnswers;
}

void GatheredStream::hurry() {
  hurries_ = true;
  if (stalled_) refuseText();
}

void GatheredStream::finish() {
  boost::system::error_code ignored;
  if (!tls_ || !socket_.is_open() || tls_->sayGoodbye()) {
    socket_.shutdown(Socket::shutdown_send, ignored);
    return;
  }
  socket_.async_wait(tls_->writeWaitsFor(), [this, owner = owner_.lock()](const auto& error) {
    if (owner && !error) finish();
  });
}

void GatheredStream::close(bool reset) {
  boost::system::error_code ignored;
  if (reset) socket_.set_option(boost::asio::socket_base::linger(true, 0), ignored);
  socket_.close(ignored);
  Items freed;  // outside the lock
  {
    const std::lock_guard lock(mutex_);
    refusesText_ = true;
    freed.swap(pending_);
  }
  Items().swap(writing_);
  next_ = 0;
  queuedMemory_ = 0;
  answerMemory_ = 0;
  completeLibraryWrite(boost::asio::error::operation_aborted, 0);
}

void GatheredStream::fail(const boost::system::error_code& error) {
  close(false);
  if (events_.writeFailed) events_.writeFailed(error);
}

void GatheredStream::completeLibraryWrite(boost::system::error_code error, std::size_t octets) {
  if (const auto write = std::move(libraryWrite_)) write->complete(get_executor(), error, octets);
}

}  // namespace tarnlink
