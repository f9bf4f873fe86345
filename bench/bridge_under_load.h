// A real tarnlinkd on one end of the wire.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/event_reader.h"
#include "tests/support/daemon.h"

namespace tarnlink::bench {

class BridgeUnderLoad {
 public:
  /// Returns when it listens. Throws std::runtime_error.
  BridgeUnderLoad(const std::string& interface, std::uint16_t port, bool isLowLatency)
      : port_(port), daemon_(arguments(interface, port, isLowLatency)) {
    int exitCode = 0;
    if (!daemon_.waitForLog("Listening on port")) throw std::runtime_error("no bridge");
    code_ =
        test::outputOf({"--show-pairing-code", "--preferences", daemon_.preferences()}, exitCode);
    code_.resize(kCodeLength);
  }

  std::unique_ptr<EventReader> connect() const {
    return std::make_unique<EventReader>(port_, code_);
  }
  test::Daemon& daemon() { return daemon_; }

 private:
  static constexpr std::size_t kCodeLength = 6;

  static std::vector<std::string> arguments(const std::string& interface, std::uint16_t port,
                                            bool isLowLatency) {
    std::vector<std::string> all{"--interface", interface, "--port", std::to_string(port)};
    if (isLowLatency) all.emplace_back("--low-latency");
    return all;
  }

  std::uint16_t port_;
  test::Daemon daemon_;
  std::string code_;
};

}  // namespace tarnlink::bench
