// Shows the GOOSE messages that others send on the bus.
#pragma once

#include <boost/asio/thread_pool.hpp>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "goosestack/goose_receiver.h"
#include "tools/tarnlink_ied/frame_sink.h"

namespace tarnlink {

/// Listens until destroyed. What the interface's own address sent is passed over: a capture also
/// shows what leaves.
class GooseListener {
 public:
  struct Handlers {
    /// One line a message. From a thread of the listener's.
    std::function<void(std::string_view line)> onMessage;
    /// The capture has ended by itself, and why. From any thread.
    std::function<void(std::string reason)> onDeath;
  };

  /// Returns when the capture runs, or why it does not.
  static IedResult<std::unique_ptr<GooseListener>> start(const std::string& interface,
                                                         Handlers handlers);
  ~GooseListener();
  GooseListener(const GooseListener&) = delete;
  GooseListener& operator=(const GooseListener&) = delete;

 private:
  GooseListener();

  boost::asio::thread_pool thread_{1};
  std::shared_ptr<goosestack::GooseReceiver> receiver_;
};

}  // namespace tarnlink
