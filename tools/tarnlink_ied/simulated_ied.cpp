#include "tools/tarnlink_ied/simulated_ied.h"

#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "goosestack/real_time_thread.h"
#include "stack/goose_publisher.h"
#include "tools/tarnlink_ied/feeder_bay.h"
#include "tools/tarnlink_ied/goose_listener.h"
#include "tools/tarnlink_ied/send_tally.h"
#include "tools/tarnlink_ied/simulation.h"
#include "tools/tarnlink_ied/sv_sender.h"

namespace tarnlink {
namespace {

/// Lines from several threads, and why the program could not go on.
class Journal {
 public:
  explicit Journal(std::ostream& out) : out_(out) {}

  void line(std::string_view text) {
    const std::lock_guard hold(lock_);
    out_ << text << std::endl;
  }
  void fail(std::string reason) {
    const std::lock_guard hold(lock_);
    if (!failure_) failure_ = std::move(reason);
  }
  std::optional<std::string> failure() {
    const std::lock_guard hold(lock_);
    return failure_;
  }

 private:
  std::mutex lock_;
  std::ostream& out_;
  std::optional<std::string> failure_;
};

std::vector<Publication> publications(
    const std::string& interface, goosestack::RealTimeThread& thread,
    const std::shared_ptr<goosestack::SendHandleSource>& handles) {
  std::vector<Publication> all;
  for (auto& block : feederBay(interface)) {
    // The simulation itself says what changes.
    auto publisher = std::make_shared<goosestack::GoosePublisher>(
        thread.executor(), [](std::string_view) {}, handles);
    all.push_back({std::move(block), std::move(publisher)});
  }
  return all;
}

IedResult<std::unique_ptr<SvSender>> startStream(const std::string& interface, std::uint32_t rate,
                                                 goosestack::SendHandleSource& handles) {
  auto handle = handles.openSendHandle(interface);
  if (!handle) return IedError{handle.error().description()};
  const auto source = handles.macAddressBytes(interface);
  if (!source) return IedError{interface + " has no MAC address"};
  SvStreamConfig config;
  config.rate = rate;
  SampledValues values(config, *source);
  return std::make_unique<SvSender>(std::move(*handle), std::move(values));
}

std::string announcement(const std::string& interface, const SimulationOptions& options,
                         std::size_t controlBlocks) {
  std::string text;
  if (controlBlocks > 0) text += "Publishing " + std::to_string(controlBlocks) + " control blocks";
  if (options.sendsSv) {
    text += (text.empty() ? "Sending " : ", sending ") + std::to_string(options.svRate) +
            " Sampled Values a second";
  }
  if (options.listens) text += text.empty() ? "Listening" : ", listening";
  return text + " on " + interface;
}

}  // namespace

IedResult<void> simulateIed(const std::string& interface, const SimulationOptions& options,
                            OperatorCues& cues, std::ostream& out) {
  // Says in people's words what is wrong with an interface.
  if (const auto sink = InterfaceSink::open(interface); !sink) return sink.error();
  Journal journal(out);
  SendTally tally(options.count, [&cues] { cues.end(); });
  const auto handles = countedSendHandles(goosestack::systemSendHandles(), tally);
  goosestack::RealTimeThread thread;
  std::unique_ptr<GooseListener> listener;
  if (options.listens) {
    auto started =
        GooseListener::start(interface, {[&journal](std::string_view line) { journal.line(line); },
                                         [&journal, &cues](std::string reason) {
                                           journal.fail(std::move(reason));
                                           cues.end();
                                         }});
    if (!started) return started.error();
    listener = std::move(*started);
  }
  std::vector<Publication> blocks;
  if (options.sendsGoose) blocks = publications(interface, thread, handles);
  journal.line(announcement(interface, options, blocks.size()));
  std::unique_ptr<SvSender> stream;
  if (options.sendsSv) {
    auto started = startStream(interface, options.svRate, *handles);
    if (!started) return started.error();
    stream = std::move(*started);
  }
  {
    Simulation simulation(std::move(blocks), thread.executor(), [&](std::string_view line) {
      if (!tally.isOver()) journal.line(line);
    });
    simulation.run(std::chrono::milliseconds(options.interval), cues);
  }
  stream.reset();
  listener.reset();
  journal.line(tally.text());
  if (tally.isInterfaceGone()) return IedError{"the interface " + interface + " has gone"};
  if (const auto reason = journal.failure()) return IedError{*reason};
  return {};
}

}  // namespace tarnlink
