// A real tarnlinkd with an interface of its own.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/readers.h"
#include "tests/support/daemon.h"

namespace tarnlink::bench {

/// Listens from construction on. Throws std::runtime_error.
class Bridge {
 public:
  Bridge(const std::string& interface, std::uint16_t port)
      : port_(port),
        daemon_({"--low-latency", "--interface", interface, "--port", std::to_string(port)}) {
    if (!daemon_.waitForLog("Listening on port")) throw std::runtime_error("no bridge");
    int exitCode = 0;
    const auto code =
        test::outputOf({"--show-pairing-code", "--preferences", daemon_.preferences()}, exitCode);
    constexpr std::size_t kCodeLength = 6;
    auth_ = R"({"cmd":"auth","token":")" + code.substr(0, kCodeLength) + "\"}";
  }

  /// Clients that receive every message from now on.
  Readers subscribe(std::size_t clients) const {
    return Readers(clients, port_, {auth_, R"({"cmd":"subscribe_goose"})"},
                   R"("isCapturing":true)");
  }
  /// After the last of them has gone: waits until the capture will have ended, which nothing tells.
  static void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(300)); }

  pid_t pid() const { return daemon_.pid(); }

 private:
  std::uint16_t port_;
  test::Daemon daemon_;
  std::string auth_;
};

}  // namespace tarnlink::bench
