// The bridge as a child process: tarnlinkd, started again when it dies.
#pragma once

#include <QObject>
#include <QProcess>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/desktop/bridge_link.h"
#include "app/desktop/menu_model.h"
#include "goosestack/log_sink.h"
#include "platform/preference_store.h"

namespace tarnlink {

struct SupervisorOptions {
  /// tarnlinkd, looked for at each start.
  std::function<std::filesystem::path()> findProgram;
  std::filesystem::path preferences;   ///< The file that both processes keep their preferences in.
  std::vector<std::string> arguments;  ///< Further options of the bridge.
  std::string host = "127.0.0.1";      ///< An address that the bridge listens on.
  std::uint16_t port = 0;
  std::chrono::milliseconds firstDelay{500};   ///< Before a dead child is started again,
  std::chrono::milliseconds maxDelay{30'000};  ///< doubled with each death up to this.
};

struct BridgeState {
  BridgePhase phase = BridgePhase::stopped;
  /// Why a start failed: the child's last line. Words for people, from outside; nothing follows
  /// from them. Empty when no start has failed.
  std::string failure;
  std::string activeInterface;  ///< Empty: none is chosen yet.
  bool canCapture = false;      ///< The running child holds CAP_NET_RAW.
};

/// The thread that draws; only stop() waits. What the bridge does is known from the protocol's
/// events and from the child's end; its log lines are passed on unread. A child that has served, or
/// that a signal ends, is started again after a while, with one log line; a start that fails (no
/// such program, port taken) is final until restart().
class BridgeSupervisor final : public QObject {
 public:
  using StateHandler = std::function<void(const BridgeState&)>;

  /// The store is that of `options.preferences` and outlives the supervisor.
  BridgeSupervisor(SupervisorOptions options, PreferenceStore& preferences,
                   goosestack::LogSink log);
  ~BridgeSupervisor() override;

  /// Once. The handler hears of every change, from the event loop.
  void start(StateHandler handler);

  /// Ends the child; returns when it has ended, within a few seconds. The handler hears of nothing
  /// any more.
  void stop();

  /// Ends the child, if there is one, and starts it anew: it gets the rights that its file has by
  /// now. Does nothing before start() and after stop().
  void restart();

  const BridgeState& state() const { return state_; }

  /// Makes an interface the active one; the state follows when the bridge has switched. A name that
  /// the protocol does not take (eth0.100) reaches the bridge through the preferences and a
  /// restart.
  void setActiveInterface(const std::string& name);

 private:
  using Milliseconds = std::chrono::milliseconds;

  void launch();
  void passOnLines();
  void ended();
  void failed(const std::string& why, const std::string& lastLine);
  void report();

  const SupervisorOptions options_;
  PreferenceStore& preferences_;
  const goosestack::LogSink log_;
  StateHandler handler_;  ///< Empty before start() and after stop().
  BridgeState state_;
  BridgeLink client_;
  QProcess child_;
  QTimer launchTimer_;  ///< Until a dead child is started again.
  QTimer killTimer_;    ///< Until a child that has been asked to end is killed.
  Milliseconds delay_;
  std::chrono::steady_clock::time_point launched_;
  bool hasServed_ = false;    ///< This child has let its owner in.
  bool mustRestart_ = false;  ///< The child has been asked to end for a restart.
  std::string lastLine_;
};

}  // namespace tarnlink
