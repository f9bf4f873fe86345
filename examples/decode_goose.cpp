// Decodes a GOOSE frame from its octets: records and codecs alone, no network.
#include <cstdio>
#include <variant>

#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"

namespace {

constexpr std::uint8_t kFrame[] = {
    // Destination, source, 802.1Q tag (priority 4, VLAN 100), EtherType of GOOSE.
    0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x0A, 0x81, 0x00, 0x80, 0x64,
    0x88, 0xB8,
    // APPID, length, reserved; the PDU.
    0x10, 0x00, 0x00, 0x67, 0x00, 0x00, 0x00, 0x00, 0x61, 0x5D, 0x80, 0x14, 0x49, 0x45, 0x44, 0x31,
    0x4C, 0x44, 0x30, 0x2F, 0x4C, 0x4C, 0x4E, 0x30, 0x24, 0x47, 0x4F, 0x24, 0x67, 0x63, 0x62, 0x31,
    0x81, 0x02, 0x07, 0xD0, 0x82, 0x10, 0x49, 0x45, 0x44, 0x31, 0x4C, 0x44, 0x30, 0x2F, 0x4C, 0x4C,
    0x4E, 0x30, 0x24, 0x64, 0x73, 0x31, 0x83, 0x04, 0x74, 0x72, 0x69, 0x70, 0x84, 0x08, 0x66, 0x47,
    0x0E, 0x62, 0x20, 0x00, 0x00, 0x0A, 0x85, 0x01, 0x05, 0x86, 0x01, 0x06, 0x87, 0x01, 0x00, 0x88,
    0x01, 0x01, 0x89, 0x01, 0x00, 0x8A, 0x01, 0x03, 0xAB, 0x0D, 0x83, 0x01, 0xFF, 0x85, 0x01, 0xFB,
    0x87, 0x05, 0x08, 0x42, 0x47, 0xEB, 0x85};

// A value is a std::variant; std::get_if takes one kind out of it.
void print(const goosestack::GooseDataValue& value) {
  if (const auto* flag = std::get_if<bool>(&value.payload)) {
    std::printf("  boolean %s\n", *flag ? "true" : "false");
  } else if (const auto* number = std::get_if<std::int32_t>(&value.payload)) {
    std::printf("  integer %d\n", *number);
  } else if (const auto* decimal = std::get_if<float>(&value.payload)) {
    std::printf("  float %.2f\n", static_cast<double>(*decimal));
  } else {
    std::printf("  of kind %d\n", static_cast<int>(value.kind()));
  }
}

}  // namespace

int main() {
  const auto frame = goosestack::EthernetFrame::parse(kFrame);
  if (!frame) return 1;  // Of another EtherType, or truncated.
  const auto pdu = goosestack::GoosePdu::parse(frame->payload);
  if (!pdu) {
    std::fprintf(stderr, "%s\n", pdu.error().description().c_str());
    return 1;
  }
  std::printf("%s from %s, VLAN %d: appId %d, stNum %u, sqNum %u, t %.3f, %zu values\n",
              pdu->goCBRef.c_str(), goosestack::formatMac(frame->srcMac).c_str(),
              frame->vlanId.value_or(0), pdu->header.appId, pdu->stNum, pdu->sqNum,
              goosestack::unixSeconds(pdu->timestamp), pdu->allData.size());
  for (const auto& value : pdu->allData) print(value);
  return 0;
}
