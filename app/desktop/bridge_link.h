// The desktop as a client of its own bridge, by the same door as every other.
#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/bridge_client.h"

namespace tarnlink {

/// Where the bridge listens, and the token that it lets its owner in with.
struct BridgeDoor {
  std::string host;
  std::uint16_t port = 0;
  std::string token;
};

/// The thread that draws. Keeps trying to be let in, and comes again when the connection is lost.
class BridgeLink final : public QObject {
 public:
  struct Handlers {
    /// Let in, or told anew which interface is active.
    std::function<void(const std::string& activeInterface)> onStatus;
    std::function<void(const std::string& text)> onError;  ///< The bridge refused a command.
    std::function<void()> onLost;                          ///< After onStatus alone.
  };
  explicit BridgeLink(Handlers handlers);

  void open(BridgeDoor door);
  /// Tells nobody.
  void close();
  bool isOpen() const { return isAdmitted_; }

  /// Makes an interface the active one; onStatus or onError follows. Only while isOpen(), and with
  /// a name that keeps the rule of goosestack/interface_name.h.
  void setInterface(const std::string& name);

 private:
  using Milliseconds = std::chrono::milliseconds;

  void tryToConnect();
  void read();
  void take(const BridgeEvent& event);
  void lose();

  const Handlers handlers_;
  BridgeDoor door_;
  std::optional<BridgeClient> client_;
  std::unique_ptr<QSocketNotifier> readable_;
  bool isAdmitted_ = false;
  Milliseconds delay_{};
  QTimer timer_;  ///< Until the next try; while one waits to be let in, until it is given up.
};

}  // namespace tarnlink
