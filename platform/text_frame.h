// One WebSocket text message from server to client, encoded once and shared by every receiver.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace tarnlink {

/// Immutable: a complete RFC 6455 frame (section 5.2: FIN, opcode text, unmasked) in one piece of
/// storage, header included. Safe to share between threads.
class TextFrame {
 public:
  /// Octets that a writer leaves free in front of its text, so that the header fits without a copy.
  static constexpr std::size_t kHeaderRoom = 10;

  /// Takes over storage of so many octets, whose text begins at offset kHeaderRoom. The text must
  /// be UTF-8.
  static std::shared_ptr<const TextFrame> adopt(std::unique_ptr<char[]> storage,
                                                std::size_t storageSize, std::size_t textLength);

  /// Copies the text, which must be UTF-8.
  static std::shared_ptr<const TextFrame> copyOf(std::string_view text);

  /// The octets for the wire.
  const char* data() const { return storage_.get() + begin_; }
  std::size_t size() const { return end_ - begin_; }
  /// The message without its header.
  std::string_view text() const { return {storage_.get() + kHeaderRoom, end_ - kHeaderRoom}; }

  /// The memory that a frame takes while it waits, with its place in a queue. Octets.
  std::size_t footprint() const { return storageSize_ + kOverhead; }

  TextFrame(std::unique_ptr<char[]> storage, std::size_t storageSize, std::size_t textLength);

 private:
  // This object, its reference counts, the heap's own, and an entry of a queue that has grown by
  // doubling. Octets.
  static constexpr std::size_t kOverhead = 128;

  std::unique_ptr<char[]> storage_;
  std::size_t storageSize_;
  std::size_t begin_;
  std::size_t end_;
};

using SharedTextFrame = std::shared_ptr<const TextFrame>;

}  // namespace tarnlink
