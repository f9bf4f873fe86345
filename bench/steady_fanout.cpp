#include "bench/steady_fanout.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/burst_server.h"
#include "bench/reading_clients.h"
#include "bench/report.h"
#include "server/bridge_event_encoder.h"
#include "stack/ethernet_frame.h"
#include "stack/goose_receiver.h"
#include "stack/send_handle.h"
#include "tests/support/daemon.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::bench {
namespace {

using std::chrono::duration;
using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr std::size_t kClients = 10;
constexpr int kRate = 20'000;                // Messages a second.
constexpr std::uint64_t kMessages = 40'000;  // Of one run.
constexpr double kMostToBare = 1.8;
// The last message has to be with all clients by then. Milliseconds.
constexpr double kNoBacklog = 50;
// From "capture started" until the last of the clients has subscribed, with room to spare.
constexpr std::chrono::milliseconds kSettling{300};
constexpr std::chrono::milliseconds kStall{5};
constexpr const char* kBus = "bus0";
constexpr const char* kIed = "ied0";

/// An eight-value message; its event has about 700 octets.
Bytes gooseFrame() {
  GoosePduFields fields;
  fields.header.appId = 0x1000;
  fields.goCBRef = "IED1LD0/LLN0$GO$gcbEvents";
  fields.datSet = "IED1LD0/LLN0$dsEvents";
  fields.goId = "gcbEvents";
  fields.timeAllowedToLive = 2000;
  fields.stNum = 17;
  fields.sqNum = 4711;
  fields.confRev = 1;
  const std::vector<GooseDataValue> values = {
      GooseDataValue::boolean(true),
      GooseDataValue::boolean(false),
      GooseDataValue::bitString({false, true}),
      GooseDataValue::integer(-12345),
      GooseDataValue::unsignedInteger(98765),
      GooseDataValue::floatingPoint(49.98F),
      GooseDataValue::visibleString("closed"),
      GooseDataValue::utcTime(timeFromUnixSeconds(1715933730.125)),
  };
  fields.values = values;
  const MacAddress to{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
  const MacAddress from{0x02, 0, 0, 0, 0, 0x01};
  return EthernetFrame::build(to, from, 0, 4, *GoosePdu::encode(fields));
}

std::size_t eventSize(const Bytes& frame) {
  GooseMessage message;
  if (!GooseFrameDecoder().decode(frame, timeFromUnixSeconds(1715933730.125), message)) {
    throw std::runtime_error("the bench's frame does not decode");
  }
  JsonWriter writer(0);
  BridgeEventEncoder::gooseMessage(message, writer);
  return writer.release().textLength;
}

/// Calls `step` once a message, evenly spread. Late ones follow at once, but after a stall of the
/// bench itself no flood makes up for it.
void paced(const std::function<void(std::uint64_t message)>& step) {
  auto due = steady_clock::now();
  for (std::uint64_t message = 0; message < kMessages; ++message) {
    std::this_thread::sleep_until(due);
    step(message);
    due = std::max(due, steady_clock::now() - kStall) + nanoseconds(1'000'000'000 / kRate);
  }
}

std::unique_ptr<SendHandle> openIed() {
  return systemSendHandles()->openSendHandle(kIed).value();
}

struct Run {
  double cpu = 0;      // Seconds of CPU for a second of messages.
  double sending = 0;  // The same of the thread that serves the clients alone.
  double backlog = 0;  // Milliseconds from the last message's start to its arrival everywhere.
  double wakeUps = 0;  // A second, of the server's thread.
};

double cpuShare(nanoseconds cpu) {
  return duration<double>(cpu).count() / (static_cast<double>(kMessages) / kRate);
}

double millisecondsSince(steady_clock::time_point start) {
  return duration<double, std::milli>(steady_clock::now() - start).count();
}

class Bridge {
 public:
  explicit Bridge(std::uint16_t port)
      : daemon_({"--interface", kBus, "--low-latency", "--port", std::to_string(port)}),
        code_(pairingCode()),
        clients_(kClients, port,
                 {R"({"cmd":"auth","token":")" + code_ + "\"}", R"({"cmd":"subscribe_goose"})"}),
        ied_(openIed()),
        frame_(gooseFrame()) {
    if (!daemon_.waitForLog("capture started")) throw std::runtime_error("no capture");
    std::this_thread::sleep_for(kSettling);
    if (::clock_getcpuclockid(daemon_.pid(), &clock_) != 0) throw std::runtime_error("no clock");
  }

  Run run() {
    const auto cpuBefore = timeOf(clock_);
    const auto sendingBefore = sendingTime();
    const auto wakeUpsBefore = wakeUps();
    paced([this](std::uint64_t) { ied_->inject(frame_); });
    const auto sent = steady_clock::now();
    sent_ += kMessages;
    clients_.waitFor(sent_, sent_);
    const double backlog = millisecondsSince(sent);
    return {cpuShare(timeOf(clock_) - cpuBefore), cpuShare(sendingTime() - sendingBefore), backlog,
            static_cast<double>(wakeUps() - wakeUpsBefore) * kRate / kMessages};
  }

 private:
  std::string pairingCode() {
    if (!daemon_.waitForLog("Listening")) throw std::runtime_error("tarnlinkd did not start");
    int exitCode = 0;
    const auto output = test::outputOf(
        {"--show-pairing-code", "--preferences", daemon_.preferences().string()}, exitCode);
    return output.substr(0, output.find('\n'));
  }

  // The daemon's first thread serves the clients.
  std::ifstream ofSendingThread(const char* file) const {
    const auto pid = std::to_string(daemon_.pid());
    return std::ifstream("/proc/" + pid + "/task/" + pid + "/" + file);
  }

  nanoseconds sendingTime() const {
    auto schedstat = ofSendingThread("schedstat");
    std::int64_t onProcessor = 0;
    if (!(schedstat >> onProcessor)) throw std::runtime_error("no schedstat of the daemon");
    return nanoseconds(onProcessor);
  }

  // How often it had gone to sleep.
  std::uint64_t wakeUps() const {
    auto status = ofSendingThread("status");
    const std::string key = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(key)) return std::stoull(line.substr(key.size()));
    }
    throw std::runtime_error("no count of the daemon's wake-ups");
  }

  test::Daemon daemon_;
  std::string code_;
  ReadingClients clients_;
  std::unique_ptr<SendHandle> ied_;
  Bytes frame_;
  clockid_t clock_{};
  std::uint64_t sent_ = 0;
};

/// The bare epoll server, given encoded events of the same size in batches. Beside it as many
/// frames are sent over the same wire, which no capture takes: the machine is as busy as it is
/// under the bridge.
class Bare {
 public:
  explicit Bare(std::uint16_t port)
      : frames_(kBurst, TextFrame::copyOf(std::string(eventSize(gooseFrame()), 'x'))),
        server_(makeEpollServer(port, frames_)),
        clients_(kClients, port),
        ied_(openIed()),
        strangeFrame_(gooseFrame()) {
    strangeFrame_[13] = 0xB5;  // EtherType 0x88B5, for experiments (IEEE 802).
  }

  /// With as many wake-ups a second as the bridge had.
  Run run(double wakeUps) {
    const auto batch =
        static_cast<std::size_t>(std::clamp(std::round(kRate / wakeUps), 1.0, double{kBurst}));
    const auto cpuBefore = server_->cpuTime();
    paced([&](std::uint64_t message) {
      ied_->inject(strangeFrame_);
      if ((message + 1) % batch == 0) server_->feed(batch);
    });
    if (const auto rest = kMessages % batch; rest > 0) server_->feed(rest);
    const auto sent = steady_clock::now();
    sent_ += kMessages;
    clients_.waitFor(sent_, sent_);
    const double cpu = cpuShare(server_->cpuTime() - cpuBefore);
    return {cpu, cpu, millisecondsSince(sent), wakeUps};
  }

 private:
  Frames frames_;
  std::unique_ptr<BurstServer> server_;
  ReadingClients clients_;
  std::unique_ptr<SendHandle> ied_;
  Bytes strangeFrame_;
  std::uint64_t sent_ = 0;
};

}  // namespace

void measureSteadyFanOut(std::uint16_t port) {
  test::NetworkNamespace::addVethPair(kBus, kIed);
  Bridge bridge(port);
  Bare bare(static_cast<std::uint16_t>(port + 1));
  bare.run(bridge.run().wakeUps);  // Warms up; does not count.
  std::vector<double> ours;
  std::vector<double> sending;
  std::vector<double> limit;
  std::vector<double> wakeUps;
  std::vector<double> backlog;
  for (int pair = 0; pair < kPairs; ++pair) {
    const Run run = bridge.run();
    ours.push_back(run.cpu);
    sending.push_back(run.sending);
    backlog.push_back(run.backlog);
    wakeUps.push_back(run.wakeUps);
    limit.push_back(bare.run(run.wakeUps).cpu);
  }
  const std::string what = "20,000 messages/s off the wire to 10 clients, ";
  const std::string beside =
      "bare epoll at the same batching " + text("%.1f %%", 100 * median(limit));
  const double ratio = medianRatio(ours, limit);
  print({what + "CPU of the thread that sends", text("%.1f %%", 100 * median(sending)), beside,
         text("%.2f", medianRatio(sending, limit)), "", true});
  print({what + "CPU with capture", text("%.1f %%", 100 * median(ours)), beside,
         text("%.2f", ratio), text("<= %.1f", kMostToBare), ratio <= kMostToBare});
  print({what + "the last one's way", text("%.1f ms", median(backlog)), "", "",
         text("<= %.0f ms", kNoBacklog), median(backlog) <= kNoBacklog});
  print({what + "messages a wake-up", text("%.1f", kRate / median(wakeUps)), "", "", "", true});
}

}  // namespace tarnlink::bench
