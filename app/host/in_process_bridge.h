// The bridge in the process of its user interface: for systems where access to the devices, not to
// a program, is what the user grants.
#pragma once

#include <memory>
#include <string>

#include "app/host/bridge.h"
#include "server/bridge_server.h"

namespace tarnlink {

/// The server runs on another thread than the one that draws: that of its executor.
class InProcessBridge final : public Bridge {
 public:
  /// The executor is the one that `server` was made with; the store is the server's and outlives
  /// the bridge.
  InProcessBridge(boost::asio::any_io_executor executor, std::shared_ptr<BridgeServer> server,
                  PreferenceStore& preferences);

  void start(std::uint16_t port, StateHandler handler) override;
  void stop() override;
  std::string pairingCode() override;
  std::string activeInterface() override;
  void setActiveInterface(std::string name, std::function<void()> done) override;

 private:
  boost::asio::any_io_executor executor_;
  std::shared_ptr<BridgeServer> server_;
  PreferenceStore& preferences_;
};

}  // namespace tarnlink
