// What the bridge costs a machine that it merely runs on: start, memory, wake-ups and size, beside
// a server on the same library that does nothing.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/server_process.h"
#include "platform/websocket_client.h"
#include "stack/send_handle.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr int kStarts = 15;  // Of each, in turn.
constexpr std::chrono::milliseconds kSettling{200};
constexpr std::chrono::seconds kIdle{10};
constexpr std::size_t kMessages = 1'000'000;
// Sent at once, and then awaited: no queue is ever near its end.
constexpr std::size_t kWindow = 500;
// Times what the do-nothing server takes.
constexpr double kMostStart = 4;
constexpr double kMostMemory = 3.5;
constexpr const char* kBus = "bus0";
constexpr const char* kIed = "ied0";
constexpr std::uint16_t kPort = 8765;
constexpr std::uint16_t kPeerPort = 8766;

/// A folder for what the runs leave, which goes with the object.
class Folder {
 public:
  Folder() {
    if (::mkdtemp(name_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~Folder() {
    std::error_code ignored;
    fs::remove_all(name_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string file(const char* name) const { return fs::path(name_) / name; }

 private:
  std::string name_ = "/tmp/tarnlink-bench-XXXXXX";
};

std::vector<std::string> bridge(const Folder& folder) {
  return {TARNLINKD,
          "--no-advertise",
          "--low-latency",
          "--interface",
          kBus,
          "--port",
          std::to_string(kPort),
          "--preferences",
          folder.file("preferences.json")};
}

std::vector<std::string> peer() {
  return {IDLE_BEAST_SERVER, std::to_string(kPeerPort)};
}

std::string figure(const char* format, double value) {
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), format, value);
  return text.data();
}

void beside(const char* what, const char* format, double ours, double theirs, double ratio,
            double most = 0) {
  const std::string target = most > 0 ? figure("<= %.1f x", most) : "";
  print({what, figure(format, ours), "do-nothing server " + figure(format, theirs),
         figure("%.2f x", ratio), target, ratio <= most});
}

void measureStart(const Folder& folder) {
  std::vector<double> ourStarts, theirStarts, ourMemory, theirMemory;
  const auto measure = [](const std::vector<std::string>& argv, std::vector<double>& starts,
                          std::vector<double>& memory) {
    const ServerProcess server(argv);
    starts.push_back(server.startTime().count());
    std::this_thread::sleep_for(kSettling);
    memory.push_back(server.residentMebibytes());
  };
  ServerProcess{bridge(folder)};  // Makes the preferences, and brings both programs into memory.
  ServerProcess{peer()};
  for (int i = 0; i < kStarts; ++i) {
    if (i % 2 == 0) measure(peer(), theirStarts, theirMemory);
    measure(bridge(folder), ourStarts, ourMemory);
    if (i % 2 != 0) measure(peer(), theirStarts, theirMemory);
  }
  beside("start to \"Listening\"", "%.1f ms", median(ourStarts), median(theirStarts),
         medianRatio(ourStarts, theirStarts), kMostStart);
  beside("resident memory, idle", "%.1f MiB", median(ourMemory), median(theirMemory),
         medianRatio(ourMemory, theirMemory), kMostMemory);
}

void measureWakeUps(const Folder& folder) {
  const ServerProcess ours(bridge(folder));
  const ServerProcess theirs(peer());
  std::this_thread::sleep_for(kSettling);
  const long oursBefore = ours.voluntarySwitches();
  const long theirsBefore = theirs.voluntarySwitches();
  std::this_thread::sleep_for(kIdle);
  const long wakeUps = ours.voluntarySwitches() - oursBefore;
  print({"wake-ups in 10 s, idle", std::to_string(wakeUps),
         "do-nothing server " + std::to_string(theirs.voluntarySwitches() - theirsBefore), "", "0",
         wakeUps == 0});
}

std::string outputOf(const std::string& command) {
  std::string output;
  std::array<char, 256> buffer;
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("popen failed");
  while (std::fgets(buffer.data(), buffer.size(), pipe) != nullptr) output += buffer.data();
  if (::pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
  return output;
}

/// The next event of that name; others before it are passed over.
void await(WebSocketClient& client, const std::string& name) {
  const std::string wanted = "\"event\":\"" + name + "\"";
  while (true) {
    const auto message = client.receive(10s);
    if (!message) throw std::runtime_error("no " + name + ": " + message.error().message());
    if (message->data.find(wanted) != std::string::npos) return;
  }
}

void measureUnderLoad(const Folder& folder) {
  const ServerProcess server(bridge(folder));
  const std::string code = outputOf(std::string(TARNLINKD) + " --show-pairing-code --preferences " +
                                    folder.file("preferences.json"));
  auto client = WebSocketClient::connect("127.0.0.1", kPort).value();
  client.sendText(R"({"cmd":"auth","token":")" + code.substr(0, 6) + "\"}").value();
  client.sendText(R"({"cmd":"subscribe_goose"})").value();
  await(client, "bridge_status");

  const auto wire = systemSendHandles()->openSendHandle(kIed).value();
  const Bytes frame = eightValueFrame();
  double begun = 0;
  for (std::size_t sent = 0; sent < kMessages; sent += kWindow) {
    for (std::size_t i = 0; i < kWindow; ++i) {
      if (wire->sendPacket(frame).status != SendOutcome::Status::sent) {
        throw std::runtime_error("a frame could not be sent");
      }
    }
    for (std::size_t i = 0; i < kWindow; ++i) await(client, "goose_message");
    if (sent == 0) begun = server.residentMebibytes();
  }
  const double resident = server.residentMebibytes();
  print({"resident memory, 1,000,000 messages delivered", figure("%.1f MiB", resident),
         "after the first 500 " + figure("%.1f MiB", begun), figure("%.2f x", resident / begun),
         ""});
}

double strippedMebibytes(const Folder& folder, const std::string& program) {
  const std::string copy = folder.file("stripped");
  outputOf("strip -o " + copy + " " + program);
  return static_cast<double>(fs::file_size(copy)) / (1024 * 1024);
}

void measureSize(const Folder& folder) {
  const double ours = strippedMebibytes(folder, TARNLINKD);
  const double theirs = strippedMebibytes(folder, IDLE_BEAST_SERVER);
  beside("program, stripped", "%.2f MiB", ours, theirs, ours / theirs);
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator("build/packages/deb", missing)) {
    if (entry.path().filename().string().rfind("tarnlinkd_", 0) != 0) continue;
    const auto kibibytes = static_cast<double>(entry.file_size()) / 1024;
    print({"package tarnlinkd", figure("%.0f KiB", kibibytes), "", "", ""});
    return;
  }
  std::fprintf(stderr, "footprint_bench: no package; packaging/build_packages.sh makes it\n");
}

}  // namespace
}  // namespace tarnlink::bench

int main() {
  using namespace tarnlink;
  try {
    test::NetworkNamespace::enter();
    test::NetworkNamespace::addVethPair(bench::kBus, bench::kIed);
    const bench::Folder folder;
    bench::measureStart(folder);
    bench::measureWakeUps(folder);
    bench::measureUnderLoad(folder);
    bench::measureSize(folder);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "footprint_bench: %s\n", error.what());
    return 1;
  }
}
