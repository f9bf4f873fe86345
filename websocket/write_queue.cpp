#include "websocket/write_queue.h"

#include <algorithm>
#include <utility>

namespace tarnlink {
namespace {

// Emptied queues above this capacity give their memory back. Frames.
constexpr std::size_t kKeptCapacity = 4096;

}  // namespace

WriteQueue::Push WriteQueue::push(std::span<SharedTextFrame> frames, Kind kind) {
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
  if (memory_ + added > limit_) {
    refusesText_ = true;
    freed.swap(pending_);
    return Push::overflow;
  }
  memory_ += added;
  if (kind == Kind::answer) answerMemory_ += added;
  return std::exchange(isBusy_, true) ? Push::accepted : Push::acceptedWhileIdle;
}

bool WriteQueue::pushProtocol(std::string_view octets, bool areLast) {
  const Item item{nullptr, octets, Kind::protocol};
  if (!isOpen_) {
    writing_.push_back(item);
    return true;
  }
  const std::lock_guard lock(mutex_);
  pending_.push_back(item);
  if (areLast) refusesText_ = true;
  return !std::exchange(isBusy_, true);
}

// The storage of a queue that was emptied on this thread. The next client's burst goes through it
// while it is in the cache, and silent clients keep none.
WriteQueue::Items& WriteQueue::spareStorage() {
  thread_local Items spare;
  return spare;
}

bool WriteQueue::refill() {
  if (next_ < writing_.size()) return true;
  if (!isOpen_) return false;
  next_ = 0;
  writing_.clear();
  const bool isWorthKeeping = writing_.capacity() > spareStorage().capacity();
  if (isWorthKeeping && writing_.capacity() <= kKeptCapacity) writing_.swap(spareStorage());
  Items().swap(writing_);
  const std::lock_guard lock(mutex_);
  writing_.swap(pending_);
  isBusy_ = !writing_.empty();
  return isBusy_;
}

std::span<const boost::asio::const_buffer> WriteQueue::gather(Buffers& buffers) {
  if (!refill()) return {};
  const auto count = std::min(writing_.size() - next_, buffers.size());
  for (std::size_t i = 0; i < count; ++i) {
    const auto octets = writing_[next_ + i].octets;
    buffers[i] = boost::asio::const_buffer(octets.data(), octets.size());
  }
  return std::span(buffers).first(count);
}

WriteQueue::Written WriteQueue::written(std::size_t octets) {
  Written finished;
  while (octets > 0) {
    auto& item = writing_[next_];
    const auto part = std::min(octets, item.octets.size());
    item.octets.remove_prefix(part);
    octets -= part;
    if (!item.octets.empty()) break;
    finished.hasAnswers |= item.kind == Kind::answer;
    finished.hasProtocol |= item.kind == Kind::protocol;
    release(item);
    item.frame.reset();
    ++next_;
  }
  return finished;
}

void WriteQueue::release(const Item& item) {
  if (!item.frame) return;
  memory_ -= item.frame->footprint();
  if (item.kind == Kind::answer) answerMemory_ -= item.frame->footprint();
}

void WriteQueue::refuseText(std::size_t committed) {
  // Half a frame on the wire has to be finished.
  const auto isForgotten = [&](const Item& item) {
    const auto held = std::min(committed, item.octets.size());
    committed -= held;
    if (!item.frame || held > 0 || item.octets.size() < item.frame->size()) return false;
    release(item);
    return true;
  };
  const std::lock_guard lock(mutex_);
  refusesText_ = true;
  std::erase_if(writing_, isForgotten);
  std::erase_if(pending_, isForgotten);
}

void WriteQueue::clear() {
  Items freed;  // outside the lock
  {
    const std::lock_guard lock(mutex_);
    refusesText_ = true;
    freed.swap(pending_);
  }
  Items().swap(writing_);
  next_ = 0;
  memory_ = 0;
  answerMemory_ = 0;
}

}  // namespace tarnlink
