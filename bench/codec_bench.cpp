// What the bridge does with every frame, beside two others that do the same in one process: a
// straight-line codec, which is the limit, and nlohmann-json, which is what many would take.
#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/slow_frames.h"
#include "bench/stopwatch.h"
#include "bench/straight_line_codec.h"
#include "goosestack/goose_message.h"
#include "protocol/bridge_command.h"
#include "protocol/bridge_event_encoder.h"
#include "stack/goose_frame_decoder.h"
#include "tests/stack/allocation_count.h"
#include "websocket/text_frame.h"

namespace tarnlink::bench {
using namespace goosestack;
namespace {

// Many short rounds: whatever interrupts one (another process, the host) spoils a few of them
// instead of adding to the mean of a long one, and both of a pair run under the same conditions.
constexpr std::size_t kRounds = 501;
constexpr int kCalls = 512;     // 50 to 200 us.
constexpr int kSlowCalls = 50;  // The same for those that take microseconds.
// A burst is decoded on one thread and written on another, each in one go.
constexpr int kBurst = 64;

const TimePoint kReceivedAt = timeFromUnixSeconds(kSampleTime);

// Octets and members as clients send them.
constexpr std::string_view kPublishGoose =
    R"({"cmd":"publish_goose","appId":4096,"goCBRef":"IED1LD0/LLN0$GO$gcbEvents",)"
    R"("dataSetRef":"IED1LD0/LLN0$dsEvents","goID":"gcbEvents","confRev":1,"vlanId":100,)"
    R"("vlanPriority":4,"vlanCfi":false,"vlanTagged":true,"interface":"eth0",)"
    R"("retransmissionProfile":"standard","timeAllowedToLive":10000,"test":false,)"
    R"("needsCommission":false,"stNum":1,"sqNum":0,"lockStNum":false,"lockSqNum":false,)"
    R"("dstMac":"01:0C:CD:01:00:01","srcMac":"02:00:00:00:00:01","values":[)"
    R"({"runtimeType":"boolean","value":true},{"runtimeType":"boolean","value":false},)"
    R"({"runtimeType":"bitString","bits":[false,true]},{"runtimeType":"int32","value":-12345},)"
    R"({"runtimeType":"uint32","value":98765},{"runtimeType":"float32","value":49.97999954223633},)"
    R"({"runtimeType":"visibleString","value":"closed"},)"
    R"({"runtimeType":"utcTime","value":"2024-05-17T08:15:30.125Z"}]})";

/// Ours: the event as the server makes it, in storage of its own that becomes the frame.
JsonWriter::Storage gooseEvent(const GooseMessage& message) {
  JsonWriter out(TextFrame::kHeaderRoom);
  BridgeEventEncoder::gooseMessage(message, out);
  return out.release();
}

/// The others must do the same work before their figures count.
void check(bool isSame, const char* what) {
  if (!isSame) throw std::runtime_error(std::string("not the same: ") + what);
}

void measureGoose() {
  const Bytes frame = eightValueFrame();
  static std::array<char, 4096> buffer;
  GooseFrameDecoder decoder;
  GooseMessage message;
  StraightLineGoose goose;
  check(decoder.decode(frame, kReceivedAt, message) && decodeGoose(frame, goose), "GOOSE frame");
  const auto storage = gooseEvent(message);
  const std::string_view event(storage.octets.get() + TextFrame::kHeaderRoom, storage.textLength);
  check(event.size() == kSampleEventSize, "size of the event");
  const char* end = writeGooseEvent(goose, kSampleTime, buffer.data());
  check(event == std::string_view(buffer.data(), end), "text of the straight line");
  // From a tree that is there: less than an encoder has to do, which must fill it.
  const auto tree = nlohmann::ordered_json::parse(event);

  const auto decode = [&](GooseMessage& into) {
    decoder.decode(frame, kReceivedAt, into);
    keep(into);
  };
  const auto write = [](const GooseMessage& from) { keep(gooseEvent(from)); };
  const auto straightDecode = [&](StraightLineGoose& into) {
    decodeGoose(frame, into);
    keep(into);
  };
  const auto straightWrite = [](const StraightLineGoose& from) {
    keep(*writeGooseEvent(from, kSampleTime, buffer.data()));
  };
  std::vector<GooseMessage> messages(kBurst);
  std::vector<StraightLineGoose> gooses(kBurst);
  const auto inBursts = [](auto& records, auto first, auto second) {
    return [&records, first, second] {
      for (auto& record : records) first(record);
      for (const auto& record : records) second(record);
    };
  };
  auto figures = interleaved(
      {
          contestant(kCalls, [&] { decode(message); }),
          contestant(kCalls, [&] { write(message); }),
          contestant(kCalls / kBurst, inBursts(messages, decode, write)),
          contestant(kCalls / kBurst, inBursts(gooses, straightDecode, straightWrite)),
          contestant(kCalls, [&] { decode(message), write(message); }),
          contestant(kCalls, [&] { straightDecode(goose), straightWrite(goose); }),
          contestant(kSlowCalls,
                     [&] {
                       decode(message);
                       keep(tree.dump());
                     }),
      },
      kRounds);
  for (const std::size_t burst : {2, 3}) {
    for (double& figure : figures[burst]) figure /= kBurst;
  }
  report("GOOSE frame of 8 values: decode", "%.0f ns", median(figures[0]));
  report("its event's text, 735 octets", "%.0f ns", median(figures[1]));
  compare("both, in bursts of 64", "%.0f ns", figures[2], "straight line", figures[3], atMost(1.4));
  compare("both, one by one", "%.0f ns", figures[4], "straight line", figures[5], atMost(1.4));
  compare("both, one by one", "%.0f ns", figures[4], "our decode, nlohmann-json's text", figures[6],
          atMost(0.2));
}

void measureCommand() {
  check(BridgeRequest::fromText(kPublishGoose).command.has_value(), "publish_goose");
  const auto figures = interleaved(
      {
          contestant(kSlowCalls, [] { keep(BridgeRequest::fromText(kPublishGoose)); }),
          contestant(kSlowCalls, [] { keep(nlohmann::ordered_json::parse(kPublishGoose)); }),
      },
      kRounds);
  compare("publish_goose command, decoded whole", "%.0f ns", figures[0], "nlohmann-json, tree only",
          figures[1], atMost(2));
}

/// From the captured frame to the frame that all clients share, with storage from the one before.
double allocationsPerMessage() {
  constexpr int kMessages = 1'000;
  const Bytes frame = eightValueFrame();
  GooseFrameDecoder decoder;
  GooseMessage message;
  const auto pass = [&] {
    for (int i = 0; i < kMessages; ++i) {
      check(decoder.decode(frame, kReceivedAt, message), "GOOSE frame");
      auto storage = gooseEvent(message);
      keep(TextFrame::adopt(std::move(storage.octets), storage.size, storage.textLength));
    }
    return test::allocationCount();
  };
  const std::size_t before = pass();  // Not steady yet.
  return static_cast<double>(pass() - before) / kMessages;
}

/// The fastest of several runs, in milliseconds; the bound is the frame's, not the machine's. Every
/// run follows a frame of another kind, so that storage must be made, and lets one of it follow, so
/// that storage must be freed.
double cost(const Bytes& frame, const Bytes& other) {
  constexpr int kRuns = 10;
  double own = std::numeric_limits<double>::infinity();
  double follower = own;
  for (int run = 0; run < kRuns; ++run) {
    GooseFrameDecoder decoder;
    GooseMessage message;
    const auto time = [&](const Bytes& octets) {
      return contestant(1, [&] {
        check(decoder.decode(octets, kReceivedAt, message), "slow frame");
        JsonWriter out(TextFrame::kHeaderRoom);
        BridgeEventEncoder::gooseMessage(message, out);
        check(out.text().size() > octets.size() / 2, "text of a slow frame");
      })();
    };
    for (int i = 0; i < 2; ++i) time(other);
    for (int i = 0; i < 2; ++i) own = std::min(own, time(frame));
    for (int i = 0; i < 2; ++i) follower = std::min(follower, time(other));
  }
  return std::max(own, follower) / 1e6;
}

void measureSlowFrames() {
  // Ethernet, jumbo frames, and what only loopback and virtual links carry.
  for (const std::size_t payload : {1'500, 9'000, 65'535}) {
    const auto frames = slowFrames(payload);
    double worst = 0;
    std::string what;
    for (const auto& frame : frames) {
      const double taken = cost(frame.octets, frames.front().octets);
      if (taken <= worst) continue;
      worst = taken;
      what = frame.what;
    }
    report("slowest frame of " + std::to_string(payload) + " octets", "%.2f ms", worst, atMost(1),
           what);
  }
}

}  // namespace

void run() {
  measureGoose();
  measureCommand();
  report("heap allocations a message", "%.2f", allocationsPerMessage(), atMost(2));
  measureSlowFrames();
}

}  // namespace tarnlink::bench
