// One WebSocket text message from server to client, encoded once and shared by every receiver.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace tarnlink {

/// Immutable: a complete RFC 6455 frame (section 5.2: FIN, opcode text, unmasked) in one piece of
/// storage, which also holds this object and its reference counts. Safe to share between threads.
class TextFrame {
  static constexpr std::size_t kLongestHeader = 10;  // Octets.
  static constexpr std::size_t kObjectRoom = 64;     // Octets; this object and its counts.

 public:
  /// Octets that a writer leaves free in front of its text, so that nothing is copied.
  static constexpr std::size_t kHeaderRoom = kObjectRoom + kLongestHeader;

  /// Takes over storage of so many octets, whose text begins at offset kHeaderRoom. The text must
  /// be UTF-8.
  static std::shared_ptr<const TextFrame> adopt(std::unique_ptr<char[]> storage,
                                                std::size_t storageSize, std::size_t textLength);

  /// Copies the text, which must be UTF-8.
  static std::shared_ptr<const TextFrame> copyOf(std::string_view text);

  /// The octets for the wire.
  const char* data() const { return storage_ + begin_; }
  std::size_t size() const { return end_ - begin_; }
  /// The message without its header.
  std::string_view text() const { return {storage_ + kHeaderRoom, end_ - kHeaderRoom}; }

  /// The memory that a frame takes while it waits, with its place in a queue. Octets.
  std::size_t footprint() const { return storageSize_ + kOverhead; }

  /// For adopt(), in whose storage the object comes to lie.
  TextFrame(char* storage, std::size_t storageSize, std::size_t textLength);
  TextFrame(const TextFrame&) = delete;
  TextFrame& operator=(const TextFrame&) = delete;

 private:
  template <class T>
  struct InStorage;

  // The heap's own, and an entry of a queue that has grown by doubling. Octets.
  static constexpr std::size_t kOverhead = 64;

  const char* storage_;
  std::size_t storageSize_;
  std::size_t begin_;
  std::size_t end_;
};

using SharedTextFrame = std::shared_ptr<const TextFrame>;

}  // namespace tarnlink
