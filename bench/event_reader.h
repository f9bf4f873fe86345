// A WebSocket client that costs next to nothing: it walks the frames of its receive buffer in
// place, so that a bench measures the bridge and not its client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlink::bench {

/// A blocking connection to a bridge on this machine. One thread reads; another may say something
/// meanwhile. Throws std::runtime_error, also when nothing has come for kPatience.
class EventReader {
 public:
  static constexpr int kPatience = 10;  // Seconds.

  /// Connects and sends the pairing code.
  EventReader(std::uint16_t port, const std::string& pairingCode);
  ~EventReader();
  EventReader(const EventReader&) = delete;
  EventReader& operator=(const EventReader&) = delete;

  void say(std::string_view command);
  /// The next event's text; holds until the next call.
  std::string_view next();
  /// Passes over all events before the next one of that name.
  std::string nextNamed(std::string_view name);

  static bool isNamed(std::string_view event, std::string_view name);
  /// A whole number behind `"key":`.
  static std::int64_t number(std::string_view event, std::string_view key);

 private:
  void connect(std::uint16_t port);
  void shakeHands();
  void sendAll(std::string_view octets) const;
  void receiveMore();

  int socket_ = -1;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // What has been received and not handed out: [begin_, end_).
  std::size_t end_ = 0;
};

}  // namespace tarnlink::bench
