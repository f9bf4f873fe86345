// Decoding the text of a command.
#include <benchmark/benchmark.h>

#include <string>

#include "server/bridge_command.h"

namespace tarnlink {
namespace {

// About one kilobyte, as clients send it.
const std::string kPublishGoose =
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

void decodePublishGoose(benchmark::State& state) {
  for (auto _ : state) {
    auto command = BridgeCommand::fromText(kPublishGoose);
    benchmark::DoNotOptimize(command);
    if (!command) state.SkipWithError("not decoded");
  }
  state.counters["octets"] = static_cast<double>(kPublishGoose.size());
}
BENCHMARK(decodePublishGoose);

void parsePublishGoose(benchmark::State& state) {
  for (auto _ : state) {
    auto object = parseJsonObject(kPublishGoose);
    benchmark::DoNotOptimize(object);
  }
}
BENCHMARK(parsePublishGoose);

}  // namespace
}  // namespace tarnlink
