// Decoding of a GOOSE payload of eight values, as one feeder's protection sends them: once into a
// fresh PDU and once into the PDU of the frame before, which is what the capture thread does.
#include <benchmark/benchmark.h>

#include "stack/goose_pdu.h"

namespace tarnlink {
namespace {

Bytes eightValuePayload() {
  using Value = GooseDataValue;
  const Value::BitString goodQuality(13, false);
  const std::vector<Value> values{
      Value::boolean(true),        Value::bitString(goodQuality),
      Value::boolean(false),       Value::bitString(goodQuality),
      Value::integer(-1234),       Value::unsignedInteger(98765),
      Value::floatingPoint(49.9F), Value::utcTime(timeFromUnixSeconds(1715932770.125)),
  };
  GoosePduFields fields;
  fields.header.appId = 0x0001;
  fields.goCBRef = "FEEDER01LD0/LLN0$GO$gcbTrip01";
  fields.timeAllowedToLive = 4000;
  fields.datSet = "FEEDER01LD0/LLN0$dsTrip01";
  fields.goId = "FEEDER01_Trip_01";
  fields.stNum = 42;
  fields.sqNum = 4711;
  fields.confRev = 10001;
  fields.values = values;
  fields.timestamp = timeFromUnixSeconds(1715932770.125);
  return GoosePdu::encode(fields).value();
}

void parse(benchmark::State& state) {
  const Bytes payload = eightValuePayload();
  for (auto _ : state) {
    auto pdu = GoosePdu::parse(payload);
    benchmark::DoNotOptimize(pdu);
  }
}
BENCHMARK(parse)->Name("GoosePdu::parse/8 values");

void parseInto(benchmark::State& state) {
  const Bytes payload = eightValuePayload();
  GoosePdu pdu;
  for (auto _ : state) {
    const bool parsed = GoosePdu::parseInto(payload, pdu).has_value();
    benchmark::DoNotOptimize(parsed);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(parseInto)->Name("GoosePdu::parseInto/8 values");

}  // namespace
}  // namespace tarnlink
