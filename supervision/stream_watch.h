// Every stream on the interface: which there are, what became of them, which one broke, when and
// how. Given records and the time; has no clock, no thread and no I/O. All times are those of the
// capture's clock.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "goosestack/sv_pdu.h"
#include "supervision/goose_tracker.h"
#include "supervision/sighting.h"
#include "supervision/stream_event.h"
#include "supervision/stream_row.h"
#include "supervision/sv_tracker.h"

namespace tarnlink {

/// Not to be shared between threads. A message of a live stream without fault allocates nothing.
class StreamWatch {
 public:
  /// Streams kept. Beyond them the one silent for longest goes; where all are live the newcomer is
  /// only counted.
  static constexpr std::size_t kMaxStreams = 4096;
  /// Events of one stream told in a second; further ones are counted and told in one.
  static constexpr std::uint32_t kMaxEventsPerSecond = 50;
  /// How much later than it is due an expiry is told: a message may have been captured in time and
  /// still be on its way here.
  static constexpr std::chrono::microseconds kExpiryGrace{3000};
  /// nextDeadline() is no nearer than this to the time of the last advance().
  static constexpr std::chrono::microseconds kDeadlineSpacing{4000};
  /// Stands for a timeAllowedToLive of 0, which is told as a fault of its own.
  static constexpr std::chrono::microseconds kZeroTimeAllowedToLive{10'000'000};

  using Events = std::vector<StreamEvent>;

  /// With a secret seed nobody can choose names that make looking streams up slow.
  explicit StreamWatch(std::uint64_t seed = 0);
  ~StreamWatch();
  StreamWatch(const StreamWatch&) = delete;
  StreamWatch& operator=(const StreamWatch&) = delete;

  /// What there is to tell is appended to `events`. Names above kMaxKeptText octets are not
  /// tracked.
  void see(const GooseSighting& message, Events& events);
  /// The id of each ASDU's stream, 0 where it is not tracked; holds until the next call.
  std::span<const std::uint32_t> see(const FrameFacts& frame, const goosestack::SvPdu& pdu,
                                     Events& events);
  /// A frame that could not be decoded.
  void countMalformed() { ++malformed_; }
  /// Frames that the kernel dropped since the capture began. To be told before the records that
  /// came behind the gap.
  void noteDrops(std::uint64_t total);

  /// Tells what silence has brought about until `now`. To be called when all that was captured
  /// until then has been seen.
  void advance(StreamTime now, Events& events);
  /// When to call advance() next; nothing while there is nothing to wait for.
  std::optional<StreamTime> nextDeadline() const;

  /// Grows with every change of a row.
  std::uint64_t revision() const { return revision_; }
  /// Calls visit(const StreamRow&) for each row that changed behind that revision; 0: all.
  template <class Visit>
  void visitChanged(std::uint64_t since, Visit visit) const {
    for (const auto& stream : streams_) {
      if (stream->revision > since) visit(std::as_const(stream->row));
    }
  }
  /// Holds until the next see(). Looks at all of them.
  const StreamRow* find(std::uint32_t id) const;

  std::size_t size() const { return streams_.size(); }
  std::uint64_t droppedFrames() const { return dropped_; }
  std::uint64_t malformedFrames() const { return malformed_; }
  std::uint64_t untrackedFrames() const { return untracked_; }

 private:
  using Slot = std::uint32_t;
  using Queue = std::set<std::pair<StreamTime, Slot>>;

  struct Key {
    std::string_view name;  // Of the row, once it is in the table.
    std::uint64_t address = 0;
    std::uint32_t rest = 0;
    bool operator==(const Key&) const = default;
  };
  struct KeyHash {
    std::uint64_t seed;
    std::size_t operator()(const Key& key) const;
  };
  struct Stream {
    StreamRow row;
    std::variant<GooseTracker, SvTracker> tracker;
    Key key;
    Slot slot = 0;
    StreamTime deadline{};     // Silence beyond is an expiry.
    StreamTime queued{};       // Its place in deadlines_ or silent_.
    StreamTime secondBegan{};  // Of the events below.
    std::uint32_t told = 0;
    std::uint64_t suppressed = 0;
    std::uint64_t dropped = 0;  // By the kernel at its last message.
    std::uint64_t revision = 0;
    std::uint64_t lastFrame = 0;
  };
  class StreamTeller;

  static Key makeKey(std::string_view name, const FrameFacts& frame, std::uint16_t appId,
                     StreamKind kind, bool simulation);
  /// The stream, and whether it is new; null where it is not tracked.
  std::pair<Stream*, bool> lookUp(const Key& key);
  /// A new one's place, or that of the one silent for longest; null when there is none.
  Stream* makeRoom();
  void drop(Stream& stream);
  void begin(Stream& stream, const Key& key, const FrameFacts& frame, std::uint16_t appId,
             Events& events);
  /// Source, tag and time of a message of a known stream; expired and recovered where so.
  void touch(Stream& stream, const FrameFacts& frame, Events& events);
  void finish(Stream& stream, StreamTime at, std::chrono::microseconds timeout);
  void expire(Stream& stream, Events& events);
  void recover(Stream& stream, StreamTime at, Events& events);
  void tell(Stream& stream, StreamTime at, Happening what, Events& events);
  void endSecond(Stream& stream, StreamTime at, Events& events);
  static void push(const Stream& stream, StreamTime at, Happening what, Events& events);

  std::vector<std::unique_ptr<Stream>> streams_;  // By slot.
  std::unordered_map<Key, Slot, KeyHash> slots_;
  Queue deadlines_;    // Live streams, none later than its deadline and the grace.
  Queue silent_;       // Expired streams by their last message.
  Queue suppressing_;  // By the end of the second.
  std::vector<std::uint32_t> asduIds_;
  StreamTime advanced_{};
  std::uint32_t lastId_ = 0;
  std::uint64_t revision_ = 0;
  std::uint64_t frames_ = 0;
  std::uint64_t dropped_ = 0;
  std::uint64_t malformed_ = 0;
  std::uint64_t untracked_ = 0;
};

}  // namespace tarnlink
