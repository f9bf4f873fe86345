// The bridge as a child process: tarnlinkd, started again when it dies.
#pragma once

#include <atomic>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "app/host/bridge.h"
#include "platform/background_process.h"
#include "platform/preference_store.h"
#include "stack/log_sink.h"

namespace tarnlink {

struct SupervisorOptions {
  std::filesystem::path program;      ///< tarnlinkd.
  std::filesystem::path preferences;  ///< The file that both processes keep their preferences in.
  std::chrono::milliseconds firstDelay{500};   ///< Before a dead child is started again,
  std::chrono::milliseconds maxDelay{30'000};  ///< doubled with each death up to this.
};

/// A child that has served and dies is started again after a while, with one log line; a start that
/// fails (no such program, port taken) is final until restart(). The child's log lines are passed
/// on, except those about its start, which the user interface writes. Its own protocol has no word
/// for an interface that it chose by itself, so the active one is read from its log lines.
class BridgeSupervisor final : public Bridge {
 public:
  /// The store is that of `options.preferences` and outlives the supervisor; `log` is called on any
  /// thread. Throws std::system_error where the process is out of descriptors or threads.
  BridgeSupervisor(SupervisorOptions options, PreferenceStore& preferences, LogSink log);
  ~BridgeSupervisor() override;

  void start(std::uint16_t port, StateHandler handler) override;
  void stop() override;
  std::string pairingCode() override;
  std::string activeInterface() override;

  /// A name that the protocol does not take (eth0.100) reaches the bridge through the preferences
  /// and a restart.
  void setActiveInterface(std::string name, std::function<void()> done) override;

  /// Ends the child, if there is one, and starts it anew: it gets the rights that its file has by
  /// now. Does nothing before start(). Any thread.
  void restart();

 private:
  using Milliseconds = std::chrono::milliseconds;
  enum class Outcome { stopped, restarted, failed, died };

  void supervise();
  Outcome serveOnce();
  Outcome outcomeOfEnd(const std::string& end);
  void take(const std::string& line);
  void report(const BridgeState& state);
  void setShownInterface(std::string_view name);
  void choose(const std::string& name);
  std::vector<std::string> commandLine() const;

  const SupervisorOptions options_;
  PreferenceStore& preferences_;
  const LogSink log_;
  std::uint16_t port_ = 0;
  StateHandler handler_;

  WakeSignal wake_;  ///< A request has come: one of the next two.
  std::atomic<bool> isStopping_ = false;
  std::atomic<bool> mustRestart_ = false;
  std::atomic<bool> hasChild_ = false;
  std::atomic<bool> hasListened_ = false;  ///< The child serves.

  std::mutex lock_;  ///< For the next one.
  std::string activeInterface_;

  // Of the supervising thread.
  std::string failure_;
  std::string diedOf_;

  boost::asio::thread_pool requests_{1};  ///< Waits for the bridge's answers.
  std::thread thread_;
};

}  // namespace tarnlink
