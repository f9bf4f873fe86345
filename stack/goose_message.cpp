#include "goosestack/goose_message.h"

#include "goosestack/footprint.h"

namespace goosestack {

bool GooseMessage::isStale(TimePoint now) const {
  const double ageMilliseconds = (now - receivedAt).count() * 1000.0;
  return ageMilliseconds > static_cast<double>(timeAllowedToLive);
}

std::size_t GooseMessage::footprint() const {
  std::size_t octets = sizeof *this + heapOctets(goCBRef) + heapOctets(dataSet) + heapOctets(goId) +
                       heapOctets(values);
  for (const auto* mac : {&srcMac, &dstMac}) octets += *mac ? heapOctets(**mac) : 0;
  for (const GooseDataValue& value : values) octets += value.heapOctets();
  return octets;
}

FlutterDict GooseMessage::toFlutterDict() const {
  FlutterDict dict;
  const auto add = [&dict](const char* key, auto value) {
    dict.emplace(key, FlutterValue{std::move(value)});
  };
  const auto addNumber = [&add](const char* key, std::uint32_t number) {
    add(key, std::int64_t{number});
  };
  addNumber("appId", appId);
  add("goCBRef", goCBRef);
  add("dataSet", dataSet);
  add("goId", goId);
  add("timestamp", unixSeconds(timestamp));
  addNumber("stNum", stNum);
  addNumber("sqNum", sqNum);
  add("simulation", simulation);
  add("needsCommission", needsCommission);
  addNumber("confRev", confRev);
  addNumber("timeAllowedToLive", timeAllowedToLive);
  addNumber("numEntries", numEntries);
  FlutterList renderedValues;
  renderedValues.reserve(values.size());
  for (const GooseDataValue& value : values) {
    renderedValues.push_back(FlutterValue{value.toFlutterDict()});
  }
  add("values", std::move(renderedValues));
  if (srcMac) add("srcMac", *srcMac);
  if (dstMac) add("dstMac", *dstMac);
  if (vlanId) addNumber("vlanId", *vlanId);
  add("receivedAt", unixSeconds(receivedAt));
  return dict;
}

}  // namespace goosestack
