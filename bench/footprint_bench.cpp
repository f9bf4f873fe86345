// What the bridge costs a machine that it merely runs on: start, memory and wake-ups, beside
// a server on the same library that does nothing.
#include <signal.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/bridge.h"
#include "bench/process_status.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/wire.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
using namespace goosestack;
namespace {

constexpr int kStarts = 15;  // Of each, interleaved.
constexpr std::chrono::milliseconds kSettling{200};
constexpr std::chrono::seconds kIdle{10};
constexpr std::uint64_t kMessages = 1'000'000;
// Sent at once, and then awaited: no queue is ever near its end.
constexpr unsigned kWindow = 512;
constexpr std::uint16_t kPort = 8765;

/// A server as a process of its own, from the constructor, which returns when it has said
/// "Listening", to the destructor.
class Server {
 public:
  explicit Server(const std::string& command)
      : output_(::popen(("echo $$; exec " + command).c_str(), "re")) {
    std::array<char, 1024> line{};
    pid_ = std::atoi(std::fgets(line.data(), line.size(), output_));
    const auto begin = std::chrono::steady_clock::now();
    while (std::strstr(line.data(), "Listening") == nullptr) {
      if (std::fgets(line.data(), line.size(), output_) == nullptr) {
        throw std::runtime_error("does not listen: " + command);
      }
    }
    startTime_ = std::chrono::steady_clock::now() - begin;
  }
  ~Server() {
    ::kill(pid_, SIGKILL);
    ::pclose(output_);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  pid_t pid() const { return pid_; }
  double startTime() const { return startTime_.count(); }  ///< Milliseconds.

 private:
  std::FILE* output_;
  pid_t pid_ = 0;
  std::chrono::duration<double, std::milli> startTime_{};
};

struct Start {
  Figures time;    // Milliseconds until it listens.
  Figures memory;  // Mebibytes.

  void measure(const std::string& command) {
    const Server server(command);
    std::this_thread::sleep_for(kSettling);
    time.push_back(server.startTime());
    memory.push_back(residentMebibytes(server.pid()));
  }
};

void measureIdle(const std::string& bridge, const std::string& peer) {
  Start ours;
  Start theirs;
  for (int i = 0; i <= kStarts; ++i) {
    if (i % 2 == 0) theirs.measure(peer);
    ours.measure(bridge);
    if (i % 2 != 0) theirs.measure(peer);
    // The first time makes the preferences, and brings both programs into memory.
    if (i == 0) ours = theirs = {};
  }
  const std::string peerName = "do-nothing server";
  compare("start to \"Listening\"", "%.1f ms", ours.time, peerName, theirs.time, atMost(4));
  compare("resident memory, idle", "%.1f MiB", ours.memory, peerName, theirs.memory, atMost(3.5));

  const Server server(bridge);
  std::this_thread::sleep_for(kSettling);
  const double before = sleepsOf(server.pid());
  std::this_thread::sleep_for(kIdle);
  report("wake-ups in 10 s, idle", "%.0f", sleepsOf(server.pid()) - before, atMost(0));
}

void measureUnderLoad() {
  const Bridge bridge(kBus, kPort);
  Readers reader = bridge.subscribe(1);
  WireSender wire(kIed);
  const Bytes frame = eightValueFrame();
  double begun = 0;
  for (std::uint64_t sent = 0; sent < kMessages;) {
    for (unsigned i = 0; i < kWindow; i += WireSender::kMostAtOnce) {
      wire.send(frame, WireSender::kMostAtOnce);
    }
    sent += kWindow;
    reader.waitFor(sent);
    if (begun == 0) begun = residentMebibytes(bridge.pid());
  }
  compare("resident memory after 1,000,000 messages", "%.1f MiB", {residentMebibytes(bridge.pid())},
          "after the first 512", {begun}, atMost(1.1));
}

}  // namespace

void run() {
  test::NetworkNamespace::enter();
  test::NetworkNamespace::addVethPair(kBus, kIed);
  std::string folder = "/tmp/tarnlink-bench-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  measureIdle(TARNLINKD " --no-advertise --low-latency --interface " + std::string(kBus) +
                  " --port " + std::to_string(kPort) + " --preferences " + folder + "/preferences",
              IDLE_BEAST_SERVER " " + std::to_string(kPort + 1));
  std::filesystem::remove_all(folder);
  measureUnderLoad();
}

}  // namespace tarnlink::bench
