#include "app/desktop/bridge_supervisor.h"

#include <linux/close_range.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "goosestack/interface_name.h"
#include "platform/process_capabilities.h"
#include "platform/secure_random.h"
#include "server/bridge_server.h"

namespace tarnlink {
namespace fs = std::filesystem;
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// tarnlinkd stops in order within two seconds.
constexpr milliseconds kStopTime{3'000};
// A child that has served for so long did not die of its start: the delays begin anew.
constexpr milliseconds kSteadyTime{60'000};

// 128 random bits for each child: nobody guesses them while it lives.
std::string newToken() {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string token;
  for (int word = 0; word < 4; ++word) {
    const auto bits = secureRandom32();
    for (int shift = 28; shift >= 0; shift -= 4) token += kDigits[(bits >> shift) & 0xF];
  }
  return token;
}

// In a group of its own, so that Ctrl-C at a terminal reaches this program alone, which then ends
// the child in order. Libraries may hold descriptors without the close-on-exec flag.
void prepareChild() {
  ::setpgid(0, 0);
  ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
}

}  // namespace

BridgeSupervisor::BridgeSupervisor(SupervisorOptions options, PreferenceStore& preferences,
                                   goosestack::LogSink log)
    : options_(std::move(options)),
      preferences_(preferences),
      log_(std::move(log)),
      client_({.onStatus =
                   [this](const std::string& active) {
                     hasServed_ = true;
                     state_ = {BridgePhase::running,
                               {},
                               active,
                               hasCaptureCapability(static_cast<int>(child_.processId()))};
                     report();
                   },
               .onError =
                   [this](const std::string& text) {
                     log_("[KorvelTarnlink] Interface not set: " + text);
                   },
               .onLost =
                   [this] {
                     state_.phase = BridgePhase::restarting;
                     report();
                   }}),
      delay_(options_.firstDelay) {
  state_.activeInterface = preferences_.read(kActiveInterfaceKey).value_or("");
  launchTimer_.setSingleShot(true);
  killTimer_.setSingleShot(true);
  child_.setProcessChannelMode(QProcess::MergedChannels);
  child_.setChildProcessModifier(prepareChild);
  connect(&launchTimer_, &QTimer::timeout, this, [this] { launch(); });
  connect(&killTimer_, &QTimer::timeout, &child_, [this] { child_.kill(); });
  connect(&child_, &QProcess::readyReadStandardOutput, this, [this] { passOnLines(); });
  connect(&child_, &QProcess::finished, this, [this] { ended(); });
  connect(&child_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
    if (error == QProcess::FailedToStart) {
      failed(child_.program().toStdString() + ": " + child_.errorString().toStdString(), {});
    }
  });
}

BridgeSupervisor::~BridgeSupervisor() {
  stop();
}

void BridgeSupervisor::start(StateHandler handler) {
  handler_ = std::move(handler);
  launch();
}

void BridgeSupervisor::launch() {
  QStringList arguments{QStringLiteral("--port"),
                        QString::number(options_.port),
                        QStringLiteral("--preferences"),
                        QString::fromStdString(options_.preferences.string()),
                        QStringLiteral("--until-input-ends"),
                        QStringLiteral("--owner-token")};
  for (const auto& argument : options_.arguments) {
    arguments.append(QString::fromStdString(argument));
  }
  const auto token = newToken();
  hasServed_ = false;
  lastLine_.clear();
  launched_ = Clock::now();
  child_.start(QString::fromStdString(options_.findProgram().string()), arguments);
  child_.write((token + '\n').c_str());
  client_.open({options_.host, options_.port, token});
}

void BridgeSupervisor::stop() {
  handler_ = nullptr;
  launchTimer_.stop();
  client_.close();
  if (child_.state() == QProcess::NotRunning) return;
  child_.terminate();
  if (!child_.waitForFinished(kStopTime.count())) {
    child_.kill();
    child_.waitForFinished(kStopTime.count());
  }
}

void BridgeSupervisor::restart() {
  if (!handler_ || mustRestart_) return;
  delay_ = options_.firstDelay;
  if (child_.state() == QProcess::NotRunning) {
    launchTimer_.stop();
    return launch();
  }
  mustRestart_ = true;
  state_.phase = BridgePhase::restarting;
  client_.close();
  child_.terminate();
  killTimer_.start(kStopTime);
  report();
}

void BridgeSupervisor::setActiveInterface(const std::string& name) {
  if (client_.isOpen() && goosestack::isValidInterfaceName(name)) return client_.setInterface(name);
  preferences_.write(kActiveInterfaceKey, name);
  state_.activeInterface = name;
  report();
  if (child_.state() != QProcess::NotRunning) restart();
}

void BridgeSupervisor::passOnLines() {
  while (child_.canReadLine()) {
    auto line = child_.readLine();
    line.chop(1);
    lastLine_ = line.toStdString();
    log_(lastLine_);
  }
  if (child_.state() == QProcess::NotRunning && child_.bytesAvailable() > 0) {
    log_(child_.readAll().toStdString());
  }
}

void BridgeSupervisor::ended() {
  passOnLines();
  killTimer_.stop();
  client_.close();
  if (!handler_) return;
  if (std::exchange(mustRestart_, false)) return launch();
  const std::string how = child_.exitStatus() == QProcess::CrashExit ? "signal " : "exit code ";
  const auto death = fs::path(child_.program().toStdString()).filename().string() + " died (" +
                     how + std::to_string(child_.exitCode()) + ")";
  if (!hasServed_ && child_.exitStatus() == QProcess::NormalExit) return failed(death, lastLine_);
  if (Clock::now() - launched_ > kSteadyTime) delay_ = options_.firstDelay;
  log_("[KorvelTarnlink] " + death + "; starting it again in " + std::to_string(delay_.count()) +
       " ms");
  state_.phase = BridgePhase::restarting;
  launchTimer_.start(delay_);
  delay_ = std::min(delay_ * 2, options_.maxDelay);
  report();
}

void BridgeSupervisor::failed(const std::string& why, const std::string& lastLine) {
  log_("[KorvelTarnlink] Start failed: " + why);
  client_.close();
  state_.phase = BridgePhase::stopped;
  state_.failure = lastLine.empty() ? why : lastLine;
  report();
}

void BridgeSupervisor::report() {
  if (handler_) handler_(state_);
}

}  // namespace tarnlink
