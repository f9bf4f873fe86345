#include "app/host/bridge_supervisor.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <optional>
#include <utility>

#include "app/host/bridge_client.h"
#include "server/bridge_server.h"
#include "server/pairing_code.h"
#include "stack/interface_name.h"

namespace tarnlink {
namespace {

using Clock = BackgroundProcess::Clock;
using std::chrono::milliseconds;

// tarnlinkd stops in order within two seconds.
constexpr milliseconds kStopTime{3'000};
// A child that has served for so long did not die of its start: the delays begin anew.
constexpr milliseconds kSteadyTime{60'000};

constexpr std::string_view kListening = "[KorvelTarnlink] Listening on port ";
constexpr std::string_view kStartFailed = "[KorvelTarnlink] Start failed: ";
constexpr std::string_view kInterfaceLines[] = {
    "[BridgeServer] restored active interface: ",
    "[BridgeServer] active interface set to ",
    "[BridgeServer] starting capture on interface=",
};

}  // namespace

BridgeSupervisor::BridgeSupervisor(SupervisorOptions options, PreferenceStore& preferences,
                                   LogSink log)
    : options_(std::move(options)), preferences_(preferences), log_(std::move(log)) {
  activeInterface_ = preferences_.read(kActiveInterfaceKey).value_or("");
}

BridgeSupervisor::~BridgeSupervisor() {
  stop();
}

void BridgeSupervisor::start(std::uint16_t port, StateHandler handler) {
  port_ = port;
  handler_ = std::move(handler);
  thread_ = std::thread([this] { supervise(); });
}

void BridgeSupervisor::stop() {
  isStopping_ = true;
  wake_.wake();
  if (thread_.joinable()) thread_.join();
  // Requests end with the connection to the child.
  requests_.join();
}

void BridgeSupervisor::restart() {
  mustRestart_ = true;
  wake_.wake();
}

std::string BridgeSupervisor::pairingCode() {
  return tarnlink::pairingCode(preferences_);
}

std::string BridgeSupervisor::activeInterface() {
  const std::lock_guard guard(lock_);
  return activeInterface_;
}

void BridgeSupervisor::setShownInterface(std::string_view name) {
  const std::lock_guard guard(lock_);
  activeInterface_ = name;
}

void BridgeSupervisor::setActiveInterface(std::string name, std::function<void()> done) {
  boost::asio::post(requests_, [this, name = std::move(name), done = std::move(done)] {
    choose(name);
    done();
  });
}

void BridgeSupervisor::choose(const std::string& name) {
  if (isStopping_) return;
  if (hasListened_ && isValidInterfaceName(name)) {
    const auto chosen = chooseInterface(port_, pairingCode(), name);
    if (chosen) {
      setShownInterface(name);
    } else {
      log_("[KorvelTarnlink] Interface " + name + " not set: " + chosen.error());
    }
    return;
  }
  preferences_.write(kActiveInterfaceKey, name);
  setShownInterface(name);
  if (hasChild_) restart();
}

std::vector<std::string> BridgeSupervisor::commandLine() const {
  return {options_.program.string(), "--port",
          std::to_string(port_),     "--preferences",
          options_.preferences,      "--until-input-ends"};
}

void BridgeSupervisor::supervise() {
  auto delay = options_.firstDelay;
  while (true) {
    const auto begin = Clock::now();
    switch (serveOnce()) {
      case Outcome::stopped:
        return;
      case Outcome::restarted:
        delay = options_.firstDelay;
        break;
      case Outcome::failed:
        report({false, failure_});
        wake_.wait(std::nullopt);
        break;
      case Outcome::died:
        if (Clock::now() - begin > kSteadyTime) delay = options_.firstDelay;
        log_("[KorvelTarnlink] " + options_.program.filename().string() + " died (" + diedOf_ +
             "); starting it again in " + std::to_string(delay.count()) + " ms");
        report({});
        wake_.wait(delay);
        delay = std::min(delay * 2, options_.maxDelay);
        break;
    }
    mustRestart_ = false;
    if (isStopping_) return;
  }
}

BridgeSupervisor::Outcome BridgeSupervisor::serveOnce() {
  failure_.clear();
  hasListened_ = false;
  auto child = BackgroundProcess::start(commandLine());
  if (!child) {
    failure_ = options_.program.string() + ": " + child.error().message();
    return Outcome::failed;
  }
  hasChild_ = true;
  std::string line;
  std::optional<Clock::time_point> killAt;
  while (true) {
    switch ((*child)->next(line, wake_, killAt)) {
      case BackgroundProcess::Event::line:
        take(line);
        break;
      case BackgroundProcess::Event::woken:
        if (killAt || !(isStopping_ || mustRestart_)) break;
        (*child)->terminate();
        killAt = Clock::now() + kStopTime;
        break;
      case BackgroundProcess::Event::timedOut:
        (*child)->kill();
        killAt = Clock::now() + kStopTime;
        break;
      case BackgroundProcess::Event::ended:
        return outcomeOfEnd((*child)->end());
    }
  }
}

BridgeSupervisor::Outcome BridgeSupervisor::outcomeOfEnd(const std::string& end) {
  hasChild_ = false;
  const bool hadListened = hasListened_.exchange(false);
  if (isStopping_) return Outcome::stopped;
  if (mustRestart_) return Outcome::restarted;
  if (failure_.empty() && hadListened) {
    diedOf_ = end;
    return Outcome::died;
  }
  if (failure_.empty()) failure_ = options_.program.string() + " ended at once (" + end + ")";
  return Outcome::failed;
}

void BridgeSupervisor::take(const std::string& line) {
  if (line.starts_with(kListening)) {
    hasListened_ = true;
    report({true, {}});
    return;
  }
  if (line.starts_with(kStartFailed)) {
    failure_ = line.substr(kStartFailed.size());
    return;
  }
  for (const auto prefix : kInterfaceLines) {
    if (line.starts_with(prefix)) setShownInterface(std::string_view(line).substr(prefix.size()));
  }
  log_(line);
}

void BridgeSupervisor::report(const BridgeState& state) {
  if (!isStopping_) handler_(state);
}

}  // namespace tarnlink
