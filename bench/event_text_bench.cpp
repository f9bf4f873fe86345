// Writing the event texts of captured traffic, storage included.
#include <benchmark/benchmark.h>

#include "server/bridge_event_encoder.h"

namespace tarnlink {
namespace {

// Eight values of the kinds that protection datasets hold; about 750 octets of text.
GooseMessage eightValueMessage() {
  GooseMessage message;
  message.appId = 0x1000;
  message.goCBRef = "IED1LD0/LLN0$GO$gcbEvents";
  message.dataSet = "IED1LD0/LLN0$dsEvents";
  message.goId = "gcbEvents";
  message.timestamp = timeFromUnixSeconds(1715933730.125);
  message.stNum = 17;
  message.sqNum = 4711;
  message.confRev = 1;
  message.timeAllowedToLive = 2000;
  message.numEntries = 8;
  message.values = {
      GooseDataValue::boolean(true),
      GooseDataValue::boolean(false),
      GooseDataValue::bitString({false, true}),
      GooseDataValue::integer(-12345),
      GooseDataValue::unsignedInteger(98765),
      GooseDataValue::floatingPoint(49.98F),
      GooseDataValue::visibleString("closed"),
      GooseDataValue::utcTime(timeFromUnixSeconds(1715933730.125)),
  };
  message.srcMac = "02:00:00:00:00:01";
  message.dstMac = "01:0C:CD:01:00:01";
  message.receivedAt = timeFromUnixSeconds(1715933730.126);
  return message;
}

void gooseMessageText(benchmark::State& state) {
  const GooseMessage message = eightValueMessage();
  std::size_t octets = 0;
  for (auto _ : state) {
    JsonWriter out(10);
    BridgeEventEncoder::gooseMessage(message, out);
    const auto storage = out.release();
    benchmark::DoNotOptimize(storage.octets.get());
    octets = storage.textLength;
  }
  state.counters["octets"] = static_cast<double>(octets);
}
BENCHMARK(gooseMessageText);

// The argument is the payload's size: one sample of eight channels, and a full frame.
void svApduText(benchmark::State& state) {
  const SvCapturedFrame frame{Bytes(static_cast<std::size_t>(state.range(0)), 0x5A),
                              "01:0C:CD:04:00:01", "02:00:00:00:00:01", 5,
                              timeFromUnixSeconds(1715933730.125)};
  for (auto _ : state) {
    JsonWriter out(10);
    BridgeEventEncoder::svApdu(frame, out);
    const auto storage = out.release();
    benchmark::DoNotOptimize(storage.octets.get());
  }
}
BENCHMARK(svApduText)->Arg(110)->Arg(1500);

}  // namespace
}  // namespace tarnlink
