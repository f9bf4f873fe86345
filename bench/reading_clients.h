// WebSocket clients of a server under test, all in one process of their own, which read with a big
// buffer and count frames: they cost the server's thread nothing, and a lost frame shows.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnlink::bench {

/// What the clients send to be upgraded and what answers it: the example of RFC 6455, 1.3.
inline constexpr const char* kUpgradeRequest =
    "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
inline constexpr const char* kUpgradeAnswer =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";

/// Shorter text frames (answers to commands, say) are not counted. Octets of payload.
inline constexpr std::uint64_t kSmallestCounted = 500;

/// The process ends with the object. One thread. Throws std::runtime_error.
class ReadingClients {
 public:
  /// Connects `count` clients to the port of 127.0.0.1 and lets each say `commands`; returns when
  /// all are upgraded.
  ReadingClients(std::size_t count, std::uint16_t port,
                 const std::vector<std::string>& commands = {});
  ~ReadingClients();
  ReadingClients(const ReadingClients&) = delete;
  ReadingClients& operator=(const ReadingClients&) = delete;

  /// Returns when every client has got `frames` in all. Throws when that takes too long, or when a
  /// client has got more than `most`.
  void waitFor(std::uint64_t frames, std::uint64_t most);
  /// Frames that the slowest client had got when the clients last said so.
  std::uint64_t fewest() const { return fewest_; }

  /// The other end: what main() runs when its first argument is kRole.
  static constexpr const char* kRole = "--reading-clients";
  static int main(const std::vector<std::string>& arguments);

 private:
  static constexpr std::chrono::milliseconds kPatience{20'000};

  void readReport(std::chrono::steady_clock::time_point deadline);

  std::uint16_t port_;
  pid_t pid_ = -1;
  int reports_ = -1;
  std::uint64_t fewest_ = 0;
  std::uint64_t most_ = 0;
};

}  // namespace tarnlink::bench
