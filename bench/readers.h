// WebSocket clients that cost next to nothing: one thread reads for all of them with a big buffer
// and counts frames, so that a bench measures its server, and a lost frame shows.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarnlink::bench {

/// Connected from construction to destruction. Text frames with less than kSmallestCounted octets
/// (answers to commands, status events) do not count. One thread; throws std::runtime_error and
/// std::system_error. A connection that the server closes ends the program.
class Readers {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kSmallestCounted = 500;
  static constexpr std::chrono::seconds kPatience{20};

  /// Connects `count` clients to the port of 127.0.0.1, one after the other. Each says `commands`
  /// and waits until what it gets contains the text `awaited`; then the next one connects.
  Readers(std::size_t count, std::uint16_t port, const std::vector<std::string>& commands = {},
          const std::string& awaited = {});
  ~Readers();
  Readers(const Readers&) = delete;
  Readers& operator=(const Readers&) = delete;

  /// Returns when every client has got `frames` in all.
  void waitFor(std::uint64_t frames);
  /// Frames that the slowest client has got.
  std::uint64_t fewest() const { return fewest_; }

  /// From the first frame on, which must not have been sent yet.
  void noteArrivals(std::size_t frames);
  /// When the slowest client had got each of them. Not while frames are on their way.
  const std::vector<Clock::time_point>& arrivals() const { return arrivals_; }

 private:
  using tcp = boost::asio::ip::tcp;

  /// Counts frames in an octet stream (RFC 6455, 5.2; unmasked, as servers send).
  class FrameCounter {
   public:
    void take(const char* octets, std::size_t size);
    std::uint64_t count() const { return count_; }

   private:
    std::string header_;    // As far as it has come.
    std::size_t left_ = 0;  // Octets of payload.
    bool isCounted_ = false;
    std::uint64_t count_ = 0;
  };
  struct Client {
    tcp::socket socket;
    FrameCounter frames;
  };

  void connect(std::uint16_t port, const std::vector<std::string>& commands,
               const std::string& awaited);
  void read();
  void tellCounts();

  boost::asio::io_context io_;
  std::vector<Client> clients_;
  int epoll_ = -1;
  std::atomic<bool> isStopping_{false};
  std::atomic<std::uint64_t> fewest_{0};
  std::mutex lock_;
  std::condition_variable told_;
  std::uint64_t wanted_ = 0;
  std::vector<Clock::time_point> arrivals_;
  std::thread thread_;
};

}  // namespace tarnlink::bench
