#include "supervision/stream_watch.h"

#include <algorithm>
#include <cstring>

#include "supervision/hash.h"
#include "supervision/short_text.h"

namespace tarnlink {
namespace {

using namespace happening;
using std::chrono::microseconds;

constexpr microseconds kSecond{1'000'000};

microseconds timeoutOf(std::uint32_t timeAllowedToLive) {
  if (timeAllowedToLive == 0) return StreamWatch::kZeroTimeAllowedToLive;
  return std::chrono::milliseconds(timeAllowedToLive);
}

/// Moves an entry without giving its storage back.
template <class Queue, class Slot>
void requeue(Queue& from, Queue& to, StreamTime& queued, StreamTime at, Slot slot) {
  auto entry = from.extract({queued, slot});
  queued = at;
  entry.value() = {at, slot};
  to.insert(std::move(entry));
}

}  // namespace

class StreamWatch::StreamTeller final : public Teller {
 public:
  StreamTeller(StreamWatch& watch, Stream& stream, StreamTime at, Events& events)
      : watch_(watch), stream_(stream), at_(at), events_(events) {}
  void tell(Happening what) override { watch_.tell(stream_, at_, std::move(what), events_); }

 private:
  StreamWatch& watch_;
  Stream& stream_;
  StreamTime at_;
  Events& events_;
};

std::size_t StreamWatch::KeyHash::operator()(const Key& key) const {
  return hashMix(hashOctets(key.name, seed) ^ key.rest, key.address);
}

StreamWatch::StreamWatch(std::uint64_t seed) : slots_(0, KeyHash{seed}) {}

StreamWatch::~StreamWatch() = default;

StreamWatch::Key StreamWatch::makeKey(std::string_view name, const FrameFacts& frame,
                                      std::uint16_t appId, StreamKind kind, bool simulation) {
  std::uint64_t mac = 0;
  std::memcpy(&mac, frame.dstMac.data(), frame.dstMac.size());
  // A priority tag's identifier is 0, as that of an untagged frame here.
  const std::uint64_t vlanId = frame.vlanId.value_or(0);
  return {name, mac | vlanId << 48,
          appId | (kind == StreamKind::sv ? 1U << 16 : 0U) | (simulation ? 1U << 17 : 0U)};
}

std::pair<StreamWatch::Stream*, bool> StreamWatch::lookUp(const Key& key) {
  const auto found = slots_.find(key);
  if (found != slots_.end()) return {streams_[found->second].get(), false};
  Stream* const room = key.name.size() <= kMaxKeptText ? makeRoom() : nullptr;
  if (room == nullptr) ++untracked_;
  return {room, true};
}

StreamWatch::Stream* StreamWatch::makeRoom() {
  if (streams_.size() < kMaxStreams) {
    streams_.push_back(std::make_unique<Stream>());
    streams_.back()->slot = static_cast<Slot>(streams_.size() - 1);
    return streams_.back().get();
  }
  if (silent_.empty()) return nullptr;
  const Slot slot = silent_.begin()->second;
  drop(*streams_[slot]);
  streams_[slot] = std::make_unique<Stream>();
  streams_[slot]->slot = slot;
  return streams_[slot].get();
}

void StreamWatch::drop(Stream& stream) {
  silent_.erase({stream.queued, stream.slot});
  suppressing_.erase({stream.secondBegan + kSecond, stream.slot});
  slots_.erase(stream.key);
}

void StreamWatch::begin(Stream& stream, const Key& key, const FrameFacts& frame,
                        std::uint16_t appId, Events& events) {
  StreamRow& row = stream.row;
  row.id = ++lastId_;
  row.name = key.name;
  row.appId = appId;
  row.srcMac = frame.srcMac;
  row.dstMac = frame.dstMac;
  if (frame.vlanId && *frame.vlanId != 0) row.vlanId = frame.vlanId;
  row.vlanPriority = frame.vlanPriority;
  row.firstSeen = row.lastSeen = frame.at;
  row.messages = 1;
  row.rate.start(frame.at);
  stream.key = key;
  stream.key.name = row.name;
  slots_.emplace(stream.key, stream.slot);
  // As late as can be, so that finish() puts it where it belongs.
  stream.queued = StreamTime::max();
  deadlines_.emplace(stream.queued, stream.slot);
  tell(stream, frame.at, Appeared{}, events);
}

void StreamWatch::touch(Stream& stream, const FrameFacts& frame, Events& events) {
  StreamRow& row = stream.row;
  if (row.isLive && frame.at > stream.deadline) expire(stream, events);
  if (!row.isLive) recover(stream, frame.at, events);
  ++row.messages;
  row.rate.add(frame.at);
  row.lastSeen = frame.at;
  row.vlanPriority = frame.vlanPriority;
  if (row.srcMac == frame.srcMac) return;
  tell(stream, frame.at, SourceChanged{row.srcMac, frame.srcMac}, events);
  row.srcMac = frame.srcMac;
}

void StreamWatch::finish(Stream& stream, StreamTime at, microseconds timeout) {
  stream.revision = ++revision_;
  stream.dropped = dropped_;
  stream.deadline = at + timeout;
  // A later deadline waits until the queue comes to this stream; most never cost more than that.
  const StreamTime due = stream.deadline + kExpiryGrace;
  if (due < stream.queued) requeue(deadlines_, deadlines_, stream.queued, due, stream.slot);
}

void StreamWatch::see(const GooseSighting& message, Events& events) {
  const FrameFacts& frame = message.frame;
  const Key key =
      makeKey(message.goCBRef, frame, message.appId, StreamKind::goose, message.simulation);
  const auto [stream, isNew] = lookUp(key);
  if (stream == nullptr) return;
  StreamTeller teller(*this, *stream, frame.at, events);
  if (isNew) {
    stream->row.kind = StreamKind::goose;
    stream->row.simulation = message.simulation;
    stream->row.goId = shortText(message.goId);
    begin(*stream, key, frame, message.appId, events);
    stream->tracker.emplace<GooseTracker>().begin(message, stream->row, teller);
  } else {
    touch(*stream, frame, events);
    std::get_if<GooseTracker>(&stream->tracker)
        ->see(message, stream->dropped != dropped_, stream->row, teller);
  }
  finish(*stream, frame.at, timeoutOf(message.timeAllowedToLive));
}

std::span<const std::uint32_t> StreamWatch::see(const FrameFacts& frame,
                                                const goosestack::SvPdu& pdu, Events& events) {
  asduIds_.clear();
  ++frames_;
  for (const goosestack::SvAsdu& asdu : pdu.asdus) {
    const Key key = makeKey(asdu.svId, frame, pdu.appId, StreamKind::sv, pdu.simulated());
    const auto [stream, isNew] = lookUp(key);
    asduIds_.push_back(0);
    if (stream == nullptr) continue;
    StreamTeller teller(*this, *stream, frame.at, events);
    StreamRow& row = stream->row;
    if (isNew) {
      row.kind = StreamKind::sv;
      row.simulation = pdu.simulated();
      begin(*stream, key, frame, pdu.appId, events);
      stream->tracker.emplace<SvTracker>().begin(asdu, frame.at, row);
    } else {
      auto& tracker = *std::get_if<SvTracker>(&stream->tracker);
      // Of several ASDUs of one stream in a frame the first one is the message.
      if (stream->lastFrame != frames_) {
        if (!row.isLive || frame.at > stream->deadline) tracker.startMeasuring(frame.at);
        touch(*stream, frame, events);
      }
      tracker.see(asdu, frame.at, stream->dropped != dropped_, row, teller);
    }
    stream->lastFrame = frames_;
    row.asdus = static_cast<std::uint32_t>(pdu.asdus.size());
    asduIds_.back() = row.id;
    finish(*stream, frame.at, std::get_if<SvTracker>(&stream->tracker)->timeout(row, frame.at));
  }
  return asduIds_;
}

void StreamWatch::noteDrops(std::uint64_t total) {
  dropped_ = total;
}

void StreamWatch::expire(Stream& stream, Events& events) {
  StreamRow& row = stream.row;
  requeue(deadlines_, silent_, stream.queued, row.lastSeen, stream.slot);
  row.isLive = false;
  row.expiredAt = stream.deadline;
  stream.revision = ++revision_;
  tell(stream, stream.deadline, Expired{stream.deadline - row.lastSeen}, events);
}

void StreamWatch::recover(Stream& stream, StreamTime at, Events& events) {
  StreamRow& row = stream.row;
  requeue(silent_, deadlines_, stream.queued, StreamTime::max(), stream.slot);
  const microseconds downtime = std::max(at - row.expiredAt, microseconds(0));
  row.isLive = true;
  row.pastDowntime += downtime;
  row.rate.start(at);
  tell(stream, at, Recovered{downtime}, events);
}

void StreamWatch::tell(Stream& stream, StreamTime at, Happening what, Events& events) {
  stream.row.faults.add(what);
  const microseconds since = at - stream.secondBegan;
  if (since >= kSecond || since <= -kSecond) {
    endSecond(stream, at, events);
    stream.secondBegan = at;
    stream.told = 0;
  }
  if (stream.told < kMaxEventsPerSecond) {
    ++stream.told;
    return push(stream, at, std::move(what), events);
  }
  if (stream.suppressed++ == 0) suppressing_.emplace(stream.secondBegan + kSecond, stream.slot);
}

void StreamWatch::endSecond(Stream& stream, StreamTime at, Events& events) {
  if (stream.suppressed == 0) return;
  suppressing_.erase({stream.secondBegan + kSecond, stream.slot});
  push(stream, at, Suppressed{std::exchange(stream.suppressed, 0)}, events);
}

void StreamWatch::push(const Stream& stream, StreamTime at, Happening what, Events& events) {
  events.push_back({stream.row.id, stream.row.kind, stream.row.name, at, std::move(what)});
}

void StreamWatch::advance(StreamTime now, Events& events) {
  advanced_ = now;
  while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
    Stream& stream = *streams_[deadlines_.begin()->second];
    const StreamTime due = stream.deadline + kExpiryGrace;
    if (due <= now) {
      expire(stream, events);
    } else {
      requeue(deadlines_, deadlines_, stream.queued, due, stream.slot);
    }
  }
  while (!suppressing_.empty() && suppressing_.begin()->first <= now) {
    Stream& stream = *streams_[suppressing_.begin()->second];
    endSecond(stream, suppressing_.begin()->first, events);
  }
}

std::optional<StreamTime> StreamWatch::nextDeadline() const {
  StreamTime next = StreamTime::max();
  if (!deadlines_.empty()) next = deadlines_.begin()->first;
  if (!suppressing_.empty()) next = std::min(next, suppressing_.begin()->first);
  if (next == StreamTime::max()) return std::nullopt;
  return std::max(next, advanced_ + kDeadlineSpacing);
}

const StreamRow* StreamWatch::find(std::uint32_t id) const {
  for (const auto& stream : streams_) {
    if (stream->row.id == id) return &stream->row;
  }
  return nullptr;
}

}  // namespace tarnlink
