// Work with the Avahi client library, on a thread of its own.
#pragma once

#include <avahi-client/client.h>
#include <avahi-common/simple-watch.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "platform/dns_sd.h"
#include "platform/posix.h"

namespace tarnlink {

/// The library's main loop. Its callbacks run inside run(); it sleeps while nothing happens. All
/// but askToStop() and isAskedToStop() belongs to one thread.
class AvahiLoop {
 public:
  /// Throws std::system_error where the process is out of descriptors.
  AvahiLoop();

  const AvahiPoll* api() const;

  /// Returns after quit(), at once where that came before, and when asked to stop.
  void run();
  void quit() { isQuit_ = true; }

  void askToStop();
  bool isAskedToStop() const { return isAskedToStop_; }

 private:
  struct PollFree {
    void operator()(AvahiSimplePoll* poll) const { ::avahi_simple_poll_free(poll); }
  };

  UniqueFd wake_;
  std::unique_ptr<AvahiSimplePoll, PollFree> poll_;
  bool isQuit_ = false;
  std::atomic<bool> isAskedToStop_ = false;
};

/// The library asks the bus and the daemon with calls that wait for each answer up to 25 s and that
/// nothing can interrupt. Therefore whoever uses it lets a thread do so, and a thread that is stuck
/// is left behind: it ends by itself when its call does.
class AvahiThread {
 public:
  /// Starts the work. It owns whatever it uses, or shares it. Throws std::system_error where the
  /// process is out of threads or descriptors.
  explicit AvahiThread(std::function<void(AvahiLoop&)> work);
  ~AvahiThread() { stop(std::chrono::milliseconds(0)); }
  AvahiThread(const AvahiThread&) = delete;
  AvahiThread& operator=(const AvahiThread&) = delete;

  /// Until the work has ended, at most until then.
  void waitUntil(std::chrono::steady_clock::time_point deadline) const;

  /// Asks the work to end, and waits for it up to `patience`; whether it has ended. Only the first
  /// call does something.
  bool stop(std::chrono::milliseconds patience);

 private:
  std::shared_ptr<AvahiLoop> loop_;
  std::future<void> ended_;
  std::thread thread_;
};

struct AvahiClientFree {
  void operator()(AvahiClient* client) const { ::avahi_client_free(client); }
};
using AvahiClientHandle = std::unique_ptr<AvahiClient, AvahiClientFree>;

DnsSdError avahiError(int code);

}  // namespace tarnlink
