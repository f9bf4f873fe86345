// The bridge as its user interface sees it, wherever it runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace tarnlink {

struct BridgeState {
  bool isRunning = false;
  std::string failure;  ///< Why a start failed; empty when it did not.
};

/// All operations are for one thread, the one that draws; none of them but stop() waits. Handlers
/// are called on threads of the bridge's own and must not call back into it.
class Bridge {
 public:
  using StateHandler = std::function<void(const BridgeState&)>;
  virtual ~Bridge() = default;

  /// Once. The handler hears how the start went, and later whenever the bridge stops serving or
  /// serves again.
  virtual void start(std::uint16_t port, StateHandler handler) = 0;

  /// Ends the service; returns when it has ended, within a few seconds. No handler is called
  /// afterwards.
  virtual void stop() = 0;

  virtual std::string pairingCode() = 0;

  /// Empty: none is chosen yet.
  virtual std::string activeInterface() = 0;

  /// Makes an interface the active one; `done` is called when the bridge has switched, or cannot,
  /// which is logged.
  virtual void setActiveInterface(std::string name, std::function<void()> done) = 0;
};

}  // namespace tarnlink
