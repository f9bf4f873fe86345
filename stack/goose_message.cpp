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
  const auto number = [](std::uint32_t value) { return FlutterValue{std::int64_t{value}}; };
  FlutterList renderedValues;
  for (const GooseDataValue& value : values) renderedValues.push_back({value.toFlutterDict()});
  FlutterDict dict{{"appId", number(appId)},
                   {"goCBRef", {goCBRef}},
                   {"dataSet", {dataSet}},
                   {"goId", {goId}},
                   {"timestamp", {unixSeconds(timestamp)}},
                   {"stNum", number(stNum)},
                   {"sqNum", number(sqNum)},
                   {"simulation", {simulation}},
                   {"needsCommission", {needsCommission}},
                   {"confRev", number(confRev)},
                   {"timeAllowedToLive", number(timeAllowedToLive)},
                   {"numEntries", number(numEntries)},
                   {"values", {std::move(renderedValues)}},
                   {"receivedAt", {unixSeconds(receivedAt)}}};
  if (srcMac) dict["srcMac"] = {*srcMac};
  if (dstMac) dict["dstMac"] = {*dstMac};
  if (vlanId) dict["vlanId"] = number(*vlanId);
  return dict;
}

}  // namespace goosestack
