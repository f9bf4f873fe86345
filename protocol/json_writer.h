// Writes compact JSON (RFC 8259) straight into one raw buffer.
#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

#include "goosestack/time_point.h"
#include "protocol/bridge_time.h"

namespace tarnlink {

/// Unchecked writes into room that JsonWriter::begin() has ensured. Its position lives in a
/// register while a group of fragments is written.
class JsonRun {
 public:
  /// Decimal digits and sign of any 64-bit integer.
  static constexpr std::size_t kMaxInteger = 20;
  static constexpr std::size_t kMaxBoolean = 5;
  static constexpr std::size_t kTime = kIso8601Length + 2;

  explicit JsonRun(char* at) : at_(at) {}

  template <std::size_t N>
  void literal(const char (&fragment)[N]) {
    std::memcpy(at_, fragment, N - 1);
    at_ += N - 1;
  }
  void character(char c) { *at_++ = c; }
  template <std::integral Integer>
  void integer(Integer value) {
    at_ = std::to_chars(at_, at_ + kMaxInteger, value).ptr;
  }
  void boolean(bool value) {
    if (value) {
      literal("true");
    } else {
      literal("false");
    }
  }
  void time(goosestack::TimePoint value) {
    character('"');
    at_ = writeIso8601(value, at_);
    character('"');
  }

  char* position() const { return at_; }

 private:
  char* at_;
};

/// Grows by doubling. Members, commas and brackets are the caller's. A value that JSON cannot carry
/// marks the whole text as failed; the caller then writes another text in its place.
class JsonWriter {
 public:
  /// Storage as another owner takes it over: the text begins behind the front room.
  struct Storage {
    std::unique_ptr<char[]> octets;
    std::size_t size = 0;  // octets held
    std::size_t textLength = 0;
  };

  /// Octets of text: an eight-value message with room to spare. With the room in front of it, it
  /// stays within the 1,032 octets up to which glibc's malloc keeps freed storage at hand for the
  /// thread; one octet more costs five times as much.
  static constexpr std::size_t kInitialCapacity = 952;

  /// `frontRoom`: octets left free before the text, for a header that is known only afterwards.
  explicit JsonWriter(std::size_t frontRoom = 0, std::size_t capacity = kInitialCapacity);

  /// Room for `octets` more, to be written through the run and claimed by end(). Any other write in
  /// between ends the run's validity.
  JsonRun begin(std::size_t octets) {
    ensure(octets);
    return JsonRun(cursor_);
  }
  void end(const JsonRun& run) { cursor_ = run.position(); }

  template <std::size_t N>
  void literal(const char (&fragment)[N]) {
    JsonRun run = begin(N);
    run.literal(fragment);
    end(run);
  }
  /// Quoted and escaped; text that is not UTF-8 fails.
  void string(std::string_view text);
  /// The shortest text that reads back to the same double; NaN and infinities fail.
  void number(double value);

  void fail() { failed_ = true; }
  bool failed() const { return failed_; }

  /// What has been written so far; valid until the next write.
  std::string_view text() const { return {textBegin(), length()}; }

  /// Starts over: no text, not failed.
  void clear();

  /// Ends the writer's life: only destruction and assignment are allowed afterwards.
  Storage release();

 private:
  char* textBegin() const { return storage_.get() + frontRoom_; }
  std::size_t length() const { return static_cast<std::size_t>(cursor_ - textBegin()); }
  void ensure(std::size_t octets) {
    if (static_cast<std::size_t>(end_ - cursor_) < octets) grow(octets);
  }
  void grow(std::size_t octets);
  void escapedString(std::string_view text);

  std::size_t frontRoom_;
  std::unique_ptr<char[]> storage_;
  char* cursor_;
  char* end_;
  bool failed_ = false;
};

}  // namespace tarnlink
