#include "protocol/to_bridge_json.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "goosestack/goose_pdu.h"
#include "protocol/json.h"

namespace tarnlink {
namespace {

// The event, its message, the list of values; an object and a list for each level of a dataset.
static_assert(3 + 2 * (goosestack::GoosePdu::kMaxDataNesting + 1) <= kMaxJsonNesting,
              "clients can read every event that the bridge writes");

// Room for the fragments of one value around its payload.
constexpr std::size_t kValueFrame = 48;

/// Every four bits as text, each bit with a comma behind it. Half a million bits in random order
/// take too long with a decision for each.
struct FourBits {
  static constexpr std::size_t kRoom = 4 * (JsonRun::kMaxBoolean + 1);
  std::array<char, kRoom> text{};
  std::uint8_t length = 0;
};
constexpr auto kFourBits = [] {
  std::array<FourBits, 16> all{};
  for (std::size_t bits = 0; bits < all.size(); ++bits) {
    for (std::size_t mask = 8; mask != 0; mask /= 2) {
      const std::string_view bit = (bits & mask) != 0 ? "true," : "false,";
      for (const char c : bit) all[bits].text[all[bits].length++] = c;
    }
  }
  return all;
}();

char* writeFourBits(unsigned bits, char* out) {
  std::memcpy(out, kFourBits[bits].text.data(), FourBits::kRoom);
  return out + kFourBits[bits].length;
}

void writeBits(const goosestack::BitString& bits, JsonWriter& out) {
  JsonRun run = out.begin(kValueFrame + bits.octets().size() * 2 * FourBits::kRoom);
  run.literal("{\"runtimeType\":\"bitString\",\"bits\":[");
  const std::size_t wholeOctets = bits.size() / 8;
  char* at = run.position();
  for (const std::uint8_t octet : bits.octets().first(wholeOctets)) {
    at = writeFourBits(octet & 0xF, writeFourBits(octet >> 4, at));
  }
  run = JsonRun(at);
  for (std::size_t i = wholeOctets * 8; i < bits.size(); ++i) {
    run.boolean(bits[i]);
    run.character(',');
  }
  // The end takes the place of the last comma.
  if (!bits.empty()) run = JsonRun(run.position() - 1);
  run.literal("]}");
  out.end(run);
}

void writeOctets(const goosestack::Bytes& octets, JsonWriter& out) {
  constexpr std::size_t kMaxOctet = 4;  // three digits and a comma
  // to_chars is told of more room than the last octet needs.
  JsonRun run = out.begin(kValueFrame + octets.size() * kMaxOctet + JsonRun::kMaxInteger);
  run.literal("{\"runtimeType\":\"octetString\",\"bytes\":[");
  for (std::size_t i = 0; i < octets.size(); ++i) {
    if (i != 0) run.character(',');
    run.integer(octets[i]);
  }
  run.literal("]}");
  out.end(run);
}

void writeValues(const std::vector<goosestack::GooseDataValue>& values, JsonWriter& out) {
  bool isFirst = true;
  for (const goosestack::GooseDataValue& value : values) {
    if (!std::exchange(isFirst, false)) out.literal(",");
    toBridgeJson(value, out);
  }
}

template <std::size_t N>
void writeMembers(const char (&head)[N], const std::vector<goosestack::GooseDataValue>& members,
                  JsonWriter& out) {
  out.literal(head);
  writeValues(members, out);
  out.literal("]}");
}

}  // namespace

void toBridgeJson(const goosestack::GooseDataValue& value, JsonWriter& out) {
  using Kind = goosestack::GooseDataValue::Kind;
  JsonRun run = out.begin(kValueFrame + std::max(JsonRun::kMaxInteger, JsonRun::kTime));
  switch (value.kind()) {
    case Kind::boolean:
      run.literal("{\"runtimeType\":\"boolean\",\"value\":");
      run.boolean(std::get<bool>(value.payload));
      break;
    case Kind::bitString:
      return writeBits(std::get<goosestack::BitString>(value.payload), out);
    case Kind::integer:
      run.literal("{\"runtimeType\":\"int32\",\"value\":");
      run.integer(std::get<std::int32_t>(value.payload));
      break;
    case Kind::unsignedInteger:
      run.literal("{\"runtimeType\":\"uint32\",\"value\":");
      run.integer(std::get<std::uint32_t>(value.payload));
      break;
    case Kind::floatingPoint:
      out.literal("{\"runtimeType\":\"float32\",\"value\":");
      out.number(std::get<float>(value.payload));
      return out.literal("}");
    case Kind::realDouble:
      out.literal("{\"runtimeType\":\"float64\",\"value\":");
      out.number(std::get<double>(value.payload));
      return out.literal("}");
    case Kind::octetString:
      return writeOctets(std::get<goosestack::Bytes>(value.payload), out);
    case Kind::visibleString:
      out.literal("{\"runtimeType\":\"visibleString\",\"value\":");
      out.string(std::get<std::string>(value.payload));
      return out.literal("}");
    case Kind::utcTime:
      run.literal("{\"runtimeType\":\"utcTime\",\"value\":");
      run.time(std::get<goosestack::TimePoint>(value.payload));
      break;
    case Kind::structure:
      return writeMembers("{\"runtimeType\":\"structure\",\"elements\":[",
                          std::get<goosestack::GooseDataValue::Structure>(value.payload).members,
                          out);
    case Kind::array:
      return writeMembers("{\"runtimeType\":\"array\",\"elements\":[",
                          std::get<goosestack::GooseDataValue::Array>(value.payload).members, out);
    case Kind::unknown:
      return writeOctets(std::get<goosestack::GooseDataValue::Unknown>(value.payload).data, out);
  }
  run.character('}');
  out.end(run);
}

void toBridgeJson(const goosestack::GooseMessage& message, JsonWriter& out) {
  // More than the keys and values of a group take. Too much in front of the last one would make the
  // storage grow for nothing at the end of a long message.
  constexpr std::size_t kGroup = 320;
  constexpr std::size_t kLastGroup = 96;
  // Room for most datasets at once: growing a text of megabytes step by step takes longer than
  // writing it.
  constexpr std::size_t kTypicalValue = 64;
  JsonRun run = out.begin(kGroup + message.values.size() * kTypicalValue);
  run.literal("{\"appId\":");
  run.integer(message.appId);
  run.literal(",\"goCBRef\":");
  out.end(run);
  out.string(message.goCBRef);
  out.literal(",\"dataSet\":");
  out.string(message.dataSet);

  run = out.begin(kGroup);
  run.literal(",\"timestamp\":");
  run.time(message.timestamp);
  run.literal(",\"stNum\":");
  run.integer(message.stNum);
  run.literal(",\"sqNum\":");
  run.integer(message.sqNum);
  run.literal(",\"test\":");
  run.boolean(message.simulation);
  run.literal(",\"needsCommission\":");
  run.boolean(message.needsCommission);
  run.literal(",\"confRev\":");
  run.integer(message.confRev);
  run.literal(",\"timeAllowedToLive\":");
  run.integer(message.timeAllowedToLive);
  run.literal(",\"values\":[");
  out.end(run);
  writeValues(message.values, out);

  run = out.begin(kLastGroup);
  run.literal("],\"receivedAt\":");
  run.time(message.receivedAt);
  if (message.vlanId) {
    run.literal(",\"vlanId\":");
    run.integer(*message.vlanId);
  }
  out.end(run);
  if (message.srcMac) {
    out.literal(",\"srcMac\":");
    out.string(*message.srcMac);
  }
  if (message.dstMac) {
    out.literal(",\"dstMac\":");
    out.string(*message.dstMac);
  }
  out.literal("}");
}

}  // namespace tarnlink
