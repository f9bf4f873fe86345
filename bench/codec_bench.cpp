// What the bridge does with every frame, beside two others that do the same in one process: a
// straight-line codec, which is the limit, and Boost.JSON, which is what many would take.
#include <array>
#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>
#include <cstdio>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "bench/boost_json_codec.h"
#include "bench/report.h"
#include "bench/sample_traffic.h"
#include "bench/stopwatch.h"
#include "bench/straight_line_codec.h"
#include "platform/text_frame.h"
#include "server/bridge_command.h"
#include "server/bridge_event_encoder.h"
#include "stack/goose_receiver.h"
#include "stack/sv_receiver.h"
#include "tests/stack/allocation_count.h"

namespace tarnlink::bench {
namespace {

constexpr std::size_t kRounds = 21;
constexpr std::size_t kCalls = 20'000;     // A round of one contestant takes about 5 ms.
constexpr std::size_t kSlowCalls = 2'000;  // The same for those that take microseconds.
constexpr double kMostTimesTheLimit = 1.5;
constexpr double kLeastTimesFaster = 5;
constexpr double kMostAllocations = 2;

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

JsonWriter::Storage svEvent(const SvCapturedFrame& frame) {
  JsonWriter out(TextFrame::kHeaderRoom);
  BridgeEventEncoder::svApdu(frame, out);
  return out.release();
}

std::string textOf(const JsonWriter::Storage& storage) {
  return {storage.octets.get() + TextFrame::kHeaderRoom, storage.textLength};
}

/// The peers must do the same work before their figures count.
void check(bool isSame, const char* what) {
  if (!isSame) throw std::runtime_error(std::string("not the same text: ") + what);
}

bool isSameJson(const std::string& one, const std::string& other) {
  return nlohmann::json::parse(one) == nlohmann::json::parse(other);
}

std::string nanoseconds(const std::vector<double>& figures) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f ns", median(figures));
  return text;
}

std::string figure(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", value);
  return text;
}

std::string factor(double value) {
  return figure(value) + " x";
}

using Figures = std::vector<double>;

void beside(const char* what, const Figures& ours, const char* peer, const Figures& theirs) {
  const double ratio = medianRatio(ours, theirs);
  print({what, nanoseconds(ours), peer + (" " + nanoseconds(theirs)),
         ratio < 0.5 ? factor(medianRatio(theirs, ours)) + " faster" : factor(ratio), ""});
}

void besideLimit(const char* what, const Figures& ours, const Figures& limit) {
  const double ratio = medianRatio(ours, limit);
  print({what, nanoseconds(ours), "straight line " + nanoseconds(limit), factor(ratio),
         "<= " + factor(kMostTimesTheLimit), ratio <= kMostTimesTheLimit});
}

void besideBoostJson(const char* what, const Figures& ours, const Figures& theirs) {
  const double faster = medianRatio(theirs, ours);
  print({what, nanoseconds(ours), "our decode, Boost.JSON " + nanoseconds(theirs),
         factor(faster) + " faster", ">= " + factor(kLeastTimesFaster),
         faster >= kLeastTimesFaster});
}

void measureGoose() {
  const Bytes frame = eightValueFrame();
  static std::array<char, 4096> buffer;
  GooseFrameDecoder decoder;
  GooseMessage message;
  StraightLineGoose goose;
  check(decoder.decode(frame, kReceivedAt, message) && decodeGoose(frame, goose), "GOOSE frame");
  const std::string text = textOf(gooseEvent(message));
  check(text == std::string(buffer.data(), writeGooseEvent(goose, kSampleTime, buffer.data())),
        "goose_message of the straight line");
  check(isSameJson(text, gooseEventByBoostJson(message)), "goose_message of Boost.JSON");

  const auto decode = inTurns(
      {
          contestant(kCalls,
                     [&] {
                       decoder.decode(frame, kReceivedAt, message);
                       keep(message);
                     }),
          contestant(kCalls,
                     [&] {
                       decodeGoose(frame, goose);
                       keep(goose);
                     }),
      },
      kRounds);
  beside("GOOSE frame of 8 values: decode", decode[0], "straight line", decode[1]);

  const auto write = inTurns(
      {
          contestant(kCalls, [&] { keep(gooseEvent(message)); }),
          contestant(kCalls, [&] { keep(*writeGooseEvent(goose, kSampleTime, buffer.data())); }),
          contestant(kSlowCalls, [&] { keep(gooseEventByBoostJson(message)); }),
      },
      kRounds);
  const std::string what = "its event's text, " + std::to_string(text.size()) + " octets";
  beside(what.c_str(), write[0], "straight line", write[1]);
  beside(what.c_str(), write[0], "Boost.JSON", write[2]);

  const auto both = inTurns(
      {
          contestant(kCalls,
                     [&] {
                       decoder.decode(frame, kReceivedAt, message);
                       keep(gooseEvent(message));
                     }),
          contestant(kCalls,
                     [&] {
                       decodeGoose(frame, goose);
                       keep(*writeGooseEvent(goose, kSampleTime, buffer.data()));
                     }),
          contestant(kSlowCalls,
                     [&] {
                       decoder.decode(frame, kReceivedAt, message);
                       keep(gooseEventByBoostJson(message));
                     }),
      },
      kRounds);
  besideLimit("decode and text together", both[0], both[1]);
  besideBoostJson("decode and text together", both[0], both[2]);
}

void measureSv() {
  const Bytes frame = eightChannelFrame();
  static std::array<char, 4096> buffer;
  SvCapturedFrame captured;
  check(SvFrameDecoder::decode(frame, kReceivedAt, captured), "SV frame");
  const std::string text = textOf(svEvent(captured));
  check(text == std::string(buffer.data(), writeSvEvent(frame, kSampleTime, buffer.data())),
        "sv_apdu of the straight line");
  check(isSameJson(text, svEventByBoostJson(captured)), "sv_apdu of Boost.JSON");

  const auto figures = inTurns(
      {
          contestant(kCalls,
                     [&] {
                       SvFrameDecoder::decode(frame, kReceivedAt, captured);
                       keep(svEvent(captured));
                     }),
          contestant(kCalls, [&] { keep(*writeSvEvent(frame, kSampleTime, buffer.data())); }),
          contestant(kSlowCalls,
                     [&] {
                       SvFrameDecoder::decode(frame, kReceivedAt, captured);
                       keep(svEventByBoostJson(captured));
                     }),
      },
      kRounds);
  constexpr const char* kWhat = "SV frame of 8 channels: decode and text";
  beside(kWhat, figures[0], "straight line", figures[1]);
  beside(kWhat, figures[0], "our decode, Boost.JSON", figures[2]);
}

void measureCommand() {
  check(BridgeCommand::fromText(kPublishGoose).has_value() && parseByBoostJson(kPublishGoose),
        "publish_goose");
  const auto figures = inTurns(
      {
          contestant(kSlowCalls, [] { keep(BridgeCommand::fromText(kPublishGoose)); }),
          contestant(kSlowCalls, [] { keep(parseByBoostJson(kPublishGoose)); }),
      },
      kRounds);
  beside("publish_goose command, decoded whole", figures[0], "Boost.JSON, tree only", figures[1]);
}

struct Consumed {
  std::atomic<std::size_t> messages = 0;
  std::atomic<std::size_t> allocations = 0;  ///< Of the consuming thread, as of that message.
};

/// Takes records off the stream and makes the frames that all clients would share.
boost::asio::awaitable<void> consume(MessageStream<GooseMessage> stream, Consumed& consumed) {
  MessageStream<GooseMessage>::Batch batch;
  while (co_await stream.next(batch)) {
    for (const GooseMessage& message : batch.records()) {
      auto storage = gooseEvent(message);
      keep(TextFrame::adopt(std::move(storage.octets), storage.size, storage.textLength));
    }
    consumed.allocations = test::allocationCount();
    consumed.messages += batch.size();
  }
}

/// Per message, on the whole road from the captured frame to the frame for the clients, on both
/// threads. Each burst is consumed before the next one comes, so that every burst costs a wake-up.
double allocationsPerMessage(std::size_t burst) {
  constexpr std::size_t kBursts = 2'000;
  const Bytes frame = eightValueFrame();
  const auto state = std::make_shared<StreamState<GooseMessage>>();
  const auto box = std::make_shared<ContinuationBox<GooseMessage>>();
  box->store(state);
  CaptureContext<GooseFrameDecoder> capture(box);
  Consumed consumed;
  boost::asio::io_context context;
  boost::asio::co_spawn(boost::asio::make_strand(context),
                        consume(MessageStream<GooseMessage>(state), consumed),
                        boost::asio::detached);
  std::thread consumer([&context] { context.run(); });
  std::size_t sent = 0;
  const auto pass = [&] {
    for (std::size_t i = 0; i < kBursts; ++i) {
      for (std::size_t k = 0; k < burst; ++k) capture.receiveFrame(frame, kReceivedAt);
      capture.flush();
      sent += burst;
      while (consumed.messages < sent) std::this_thread::yield();
    }
    return test::allocationCount() + consumed.allocations;
  };
  const std::size_t before = pass();  // Not steady yet.
  const std::size_t after = pass();
  state->finish();
  consumer.join();
  return static_cast<double>(after - before) / static_cast<double>(kBursts * burst);
}

void countAllocations() {
  // A single message wakes the consumer up for itself; what that takes is shared by a burst.
  const double alone = allocationsPerMessage(1);
  print({"heap allocations of a message alone", figure(alone), "", "", "<= 2",
         alone <= kMostAllocations});
  const double inBurst = allocationsPerMessage(64);
  print({"heap allocations a message, bursts of 64", figure(inBurst), "", "", "<= 2",
         inBurst <= kMostAllocations});
}

}  // namespace
}  // namespace tarnlink::bench

int main() {
  try {
    tarnlink::bench::measureGoose();
    tarnlink::bench::measureSv();
    tarnlink::bench::measureCommand();
    tarnlink::bench::countAllocations();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "codec_bench: %s\n", error.what());
    return 1;
  }
}
