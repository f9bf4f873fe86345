// Captures that die by themselves (their interface went away, mostly) or that lose frames.
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <string>
#include <utility>

#include "server/bridge_server.h"

namespace tarnlink {
namespace asio = boost::asio;

std::function<void(const goosestack::CaptureDrops&)> BridgeServer::dropLog(
    const std::string& label, const std::string& interface) const {
  return [log = ports_.log,
          capture = label + "✗ capture on " + interface](const goosestack::CaptureDrops& drops) {
    const std::string total = std::to_string(drops.total);
    log(capture + (drops.isLast ? " has ended; the kernel dropped " + total + " frames in all"
                                : ": the kernel dropped " + std::to_string(drops.fresh) +
                                      " frames, " + total + " so far"));
  };
}

asio::awaitable<void> BridgeServer::pause(std::chrono::milliseconds duration) {
  asio::steady_timer timer(strand_, duration);
  const auto entry = pauses_.insert(&timer).first;
  boost::system::error_code cancelled;
  co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
  pauses_.erase(entry);
}

// Tries to open the interface again for as long as somebody is subscribed. Whoever starts a capture
// meanwhile ends the tries.
template <class Record>
asio::awaitable<void> BridgeServer::retryCapture(CaptureRecovery<Record> recovery) {
  auto& capture = recovery.capture;
  if (std::exchange(capture.isRetried, true)) co_return;
  while ((this->*recovery.hasSubscribers)() && !isStopping_) {
    co_await pause(ports_.recoveryPause);
    const auto turn = co_await capture.turn();
    if (capture.isCapturing() || !(this->*recovery.hasSubscribers)() || isStopping_) break;
    const auto started = co_await (this->*recovery.start)();
    if (!started) continue;
    log(recovery.label + "✓ capture runs again on " + capture.interface());
    broadcastStatus();
    break;
  }
  capture.isRetried = false;
}

// Stops what is left of a dead capture and tells the truth before it tries again.
template <class Record>
asio::awaitable<void> BridgeServer::recoverCapture(CaptureRecovery<Record> recovery,
                                                   std::string reason) {
  log(recovery.label + "✗ capture on " + recovery.capture.interface() + " ended: " + reason);
  {
    const auto turn = co_await recovery.capture.turn();
    if (recovery.capture.isCapturing()) co_return;
    co_await recovery.capture.stop(CaptureControl<Record>::Queued::deliver);
  }
  broadcastStatus();
  co_await retryCapture(std::move(recovery));
}

BridgeServer::CaptureRecovery<goosestack::GooseMessage> BridgeServer::gooseRecovery() {
  return {"[BridgeServer] ", gooseCapture_, &BridgeServer::hasGooseSubscribers,
          &BridgeServer::startCaptureInternal};
}

BridgeServer::CaptureRecovery<goosestack::SvCapturedFrame> BridgeServer::svRecovery() {
  return {"[BridgeServer] SV: ", svCapture_, &BridgeServer::hasSvSubscribers,
          &BridgeServer::startSvCapture};
}

asio::awaitable<void> BridgeServer::recoverGooseCapture(std::string reason) {
  return recoverCapture(gooseRecovery(), std::move(reason));
}

asio::awaitable<void> BridgeServer::recoverSvCapture(std::string reason) {
  return recoverCapture(svRecovery(), std::move(reason));
}

asio::awaitable<void> BridgeServer::retryGooseCapture() {
  return retryCapture(gooseRecovery());
}

}  // namespace tarnlink
