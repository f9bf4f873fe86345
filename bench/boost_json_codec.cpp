#include "bench/boost_json_codec.h"

#include <boost/json/src.hpp>
#include <variant>

#include "server/base64.h"
#include "server/bridge_time.h"

namespace tarnlink::bench {
namespace {

namespace json = boost::json;

json::string textOf(TimePoint time) {
  return json::string(bridgeIso8601Formatter.string(time));
}

/// The values that the samples hold; others are left out, which the comparison of texts would show.
struct ValueWriter {
  json::object operator()(bool value) const {
    return {{"runtimeType", "boolean"}, {"value", value}};
  }
  json::object operator()(const GooseDataValue::BitString& value) const {
    json::array bits;
    bits.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) bits.emplace_back(value[i]);
    return {{"runtimeType", "bitString"}, {"bits", std::move(bits)}};
  }
  json::object operator()(std::int32_t value) const {
    return {{"runtimeType", "int32"}, {"value", value}};
  }
  json::object operator()(std::uint32_t value) const {
    return {{"runtimeType", "uint32"}, {"value", value}};
  }
  json::object operator()(float value) const {
    return {{"runtimeType", "float32"}, {"value", double{value}}};
  }
  json::object operator()(const std::string& value) const {
    return {{"runtimeType", "visibleString"}, {"value", value}};
  }
  json::object operator()(TimePoint value) const {
    return {{"runtimeType", "utcTime"}, {"value", textOf(value)}};
  }
  template <class Other>
  json::object operator()(const Other&) const {
    return {};
  }
};

}  // namespace

std::string gooseEventByBoostJson(const GooseMessage& message) {
  json::array values;
  values.reserve(message.values.size());
  for (const auto& value : message.values) {
    values.emplace_back(std::visit(ValueWriter(), value.payload));
  }
  json::object body{
      {"appId", message.appId},      {"goCBRef", message.goCBRef},
      {"dataSet", message.dataSet},  {"timestamp", textOf(message.timestamp)},
      {"stNum", message.stNum},      {"sqNum", message.sqNum},
      {"test", message.simulation},  {"needsCommission", message.needsCommission},
      {"confRev", message.confRev},  {"timeAllowedToLive", message.timeAllowedToLive},
      {"values", std::move(values)}, {"receivedAt", textOf(message.receivedAt)},
  };
  if (message.vlanId) body.emplace("vlanId", *message.vlanId);
  if (message.srcMac) body.emplace("srcMac", *message.srcMac);
  if (message.dstMac) body.emplace("dstMac", *message.dstMac);
  return json::serialize(json::object{{"event", "goose_message"}, {"message", std::move(body)}});
}

std::string svEventByBoostJson(const SvCapturedFrame& frame) {
  json::string base64(base64Length(frame.pdu.size()), '\0');
  writeBase64(frame.pdu, base64.data());
  return json::serialize(json::object{
      {"event", "sv_apdu"},
      {"pduBase64", std::move(base64)},
      {"receivedAt", textOf(frame.receivedAt)},
      {"vlanId", frame.vlanId ? json::value(*frame.vlanId) : json::value()},
      {"dstMac", frame.dstMac},
      {"srcMac", frame.srcMac},
  });
}

bool parseByBoostJson(std::string_view text) {
  json::error_code error;
  const json::value tree = json::parse({text.data(), text.size()}, error);
  return !error && !tree.is_null();
}

}  // namespace tarnlink::bench
