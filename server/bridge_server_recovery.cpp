// Captures that die by themselves: their interface went away, mostly.
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <string>
#include <utility>

#include "server/bridge_server.h"

namespace tarnlink {
namespace asio = boost::asio;

asio::awaitable<void> BridgeServer::pauseBeforeRecovery() {
  asio::steady_timer pause(strand_, ports_.recoveryPause);
  const auto entry = recoveryPauses_.insert(&pause).first;
  boost::system::error_code cancelled;
  co_await pause.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
  recoveryPauses_.erase(entry);
}

// Stops what is left of the capture, tells the truth, and tries to open it again for as long as
// somebody is subscribed. Whoever starts a capture meanwhile ends the tries.
template <class Record>
asio::awaitable<void> BridgeServer::recoverCapture(CaptureRecovery<Record> recovery,
                                                   std::string reason) {
  auto& capture = recovery.capture;
  log(recovery.label + "✗ capture on " + activeInterface_ + " ended: " + reason);
  {
    const auto turn = co_await capture.turn();
    if (capture.isCapturing()) co_return;
    co_await capture.stop(CaptureControl<Record>::Queued::deliver);
  }
  sendStatus(std::nullopt);
  while ((this->*recovery.hasSubscribers)() && !isStopping_) {
    co_await pauseBeforeRecovery();
    const auto turn = co_await capture.turn();
    if (capture.isCapturing() || !(this->*recovery.hasSubscribers)() || isStopping_) co_return;
    const auto started = co_await (this->*recovery.start)();
    if (!started) continue;
    log(recovery.label + "✓ capture runs again on " + activeInterface_);
    sendStatus(std::nullopt);
    co_return;
  }
}

asio::awaitable<void> BridgeServer::recoverGooseCapture(std::string reason) {
  CaptureRecovery<GooseMessage> recovery{"[BridgeServer] ", gooseCapture_,
                                         &BridgeServer::hasGooseSubscribers,
                                         &BridgeServer::startCaptureInternal};
  return recoverCapture(std::move(recovery), std::move(reason));
}

asio::awaitable<void> BridgeServer::recoverSvCapture(std::string reason) {
  CaptureRecovery<SvCapturedFrame> recovery{"[BridgeServer] SV: ", svCapture_,
                                            &BridgeServer::hasSvSubscribers,
                                            &BridgeServer::startSvCapture};
  return recoverCapture(std::move(recovery), std::move(reason));
}

}  // namespace tarnlink
