// The bridge in the process of its user interface: for systems where access to the devices, not to
// a program, is what the user grants.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/system/result.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "server/bridge_server.h"

namespace tarnlink {

/// The server runs on another thread than the one that draws: that of its executor. All operations
/// are for the thread that draws; none but stop() waits. Handlers are called on the server's
/// thread.
class InProcessBridge {
 public:
  /// The executor is the one that `server` was made with.
  InProcessBridge(boost::asio::any_io_executor executor, std::shared_ptr<BridgeServer> server)
      : executor_(std::move(executor)), server_(std::move(server)) {}

  /// `started` hears once how the start went.
  void start(std::uint16_t port, std::function<void(const BridgeResult<void>&)> started);

  /// Ends the service; returns when it has ended, or after three seconds.
  void stop();

  /// `switched` is called when the server has switched, or cannot, which it logs.
  void setActiveInterface(std::string name, std::function<void()> switched);

 private:
  boost::asio::any_io_executor executor_;
  std::shared_ptr<BridgeServer> server_;
};

}  // namespace tarnlink
