// Writes the seeds: make_corpus FOLDER. Frames of every kind of value from our own encoder, the
// edge lengths of BER, and one text of each command.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "ber/ber_writer.h"
#include "fuzz/random_goose.h"
#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"
#include "protocol/to_bridge_json.h"

namespace tarnlink::fuzz {
using namespace goosestack;
namespace {

using Value = GooseDataValue;

constexpr MacAddress kSource{0x02, 0, 0, 0, 0, 0x01};
constexpr MacAddress kDestination{0x01, 0x0C, 0xCD, 0x01, 0, 0x01};

class Corpus {
 public:
  explicit Corpus(std::filesystem::path folder) : folder_(std::move(folder)) {}

  void add(const std::string& target, const std::string& name, ByteView octets) const {
    std::filesystem::create_directories(folder_ / target);
    std::ofstream file(folder_ / target / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(octets.data()),
               static_cast<std::streamsize>(octets.size()));
    file.close();
    if (!file) throw std::runtime_error("cannot write " + (folder_ / target / name).string());
  }
  void add(const std::string& target, const std::string& name, std::string_view text) const {
    add(target, name, ByteView(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
  }

 private:
  std::filesystem::path folder_;
};

Bytes payloadOf(const std::vector<Value>& values) {
  GoosePdu pdu;
  pdu.header.appId = 0x1000;
  pdu.goCBRef = "I/LLN0$GO$g";
  pdu.timeAllowedToLive = 2000;
  pdu.datSet = "I/LLN0$d";
  pdu.goId = "g";
  pdu.stNum = 1;
  pdu.sqNum = 2;
  pdu.confRev = 3;
  pdu.allData = values;
  pdu.timestamp = timeFromUnixSeconds(1715932770.125);
  return GoosePdu::encode(pdu).value();
}

Value nested(int levels) {
  Value value = Value::integer(7);
  for (int i = 0; i < levels; ++i) {
    value = i % 2 == 0 ? Value::structure({std::move(value)}) : Value::array({std::move(value)});
  }
  return value;
}

struct Dataset {
  std::string name;
  std::vector<Value> values;
};

std::vector<Dataset> datasets() {
  RandomGoose random(1);
  return {
      {"empty", {}},
      {"boolean", {Value::boolean(true), Value::boolean(false)}},
      {"bit_string", {Value::bitString({true, false, true}), Value::bitString({})}},
      {"integer", {Value::integer(-1), Value::integer(-2147483647 - 1), Value::integer(300)}},
      {"unsigned", {Value::unsignedInteger(0), Value::unsignedInteger(4294967295)}},
      {"float", {Value::floatingPoint(-1.5F), Value::floatingPoint(1e-45F)}},
      {"not_finite", {Value::floatingPoint(std::numeric_limits<float>::infinity())}},
      {"double", {Value::realDouble(1.5)}},
      {"octets", {Value::octetString({0, 1, 255})}},
      {"text", {Value::visibleString("\"\\\n\x01ä€😀")}},
      {"time", {Value::utcTime(timeFromUnixSeconds(4294967295.0))}},
      {"length_127", {Value::octetString(Bytes(127, 1))}},
      {"length_128", {Value::octetString(Bytes(128, 1))}},
      {"length_256", {Value::octetString(Bytes(256, 1))}},
      {"nested", {Value::structure({Value::array({nested(2)}), Value::boolean(true)})}},
      {"deepest", {nested(GoosePdu::kMaxDataNesting + 2)}},
      {"random", random.values(4)},
  };
}

/// A Sampled Values payload of ASDUs with a sample of `octets` each.
Bytes samplesOf(int asdus, std::size_t octets) {
  Bytes sequence;
  for (int i = 0; i < asdus; ++i) {
    const Bytes fields{0x80, 0x02, 'M',  'U',  0x82, 0x02, 0x0F, static_cast<std::uint8_t>(i),
                       0x83, 0x01, 0x01, 0x85, 0x01, 0x02, 0x86, 0x01,
                       0x50};
    Bytes asdu = fields;
    (void)appendBerTLV(asdu, 0x87, Bytes(octets, 0x11));
    (void)appendBerTLV(sequence, 0x30, asdu);
  }
  Bytes content{0x80, 0x01, static_cast<std::uint8_t>(asdus)};
  (void)appendBerTLV(content, 0xA2, sequence);
  Bytes payload{0x40, 0x01, 0x00, 0x60, 0x80, 0x00, 0x00, 0x00};
  (void)appendBerTLV(payload, 0x60, content);
  return payload;
}

void addFrames(const Corpus& corpus) {
  std::uint16_t vlanId = 0;
  for (const auto& [name, values] : datasets()) {
    const Bytes payload = payloadOf(values);
    corpus.add("goose_pdu", name, payload);
    corpus.add("ber_reader", name, ByteView(payload).subspan(8));
    // Every second one tagged.
    vlanId = vlanId == 0 ? 100 : 0;
    corpus.add("data_path", name, EthernetFrame::build(kDestination, kSource, vlanId, 4, payload));
    if (name == "boolean" || name == "integer") {
      corpus.add("ethernet_frame", name,
                 EthernetFrame::build(kDestination, kSource, vlanId, 4, payload));
    }
  }
  corpus.add("sv_pdu", "one", samplesOf(1, 64));
  corpus.add("sv_pdu", "three", samplesOf(3, 8));
  corpus.add("sv_pdu", "none", samplesOf(0, 0));
  const Bytes samples(20, 0x60);
  for (const std::uint16_t id : {0, 1, 4095}) {
    const Bytes frame = EthernetFrame::build(kDestination, kSource, id, 7, samples, kEtherTypeSv);
    const std::string name = "sv_vlan_" + std::to_string(id);
    for (const char* target : {"ethernet_frame", "data_path"}) {
      corpus.add(target, name, frame);
    }
  }
}

constexpr std::string_view kLengths[] = {
    std::string_view("\x04\x81\x80", 3),
    std::string_view("\x04\x80\x00\x00", 4),
    std::string_view("\x04\x88\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 10),
    std::string_view("\x04\x8A\x00\x00\x00\x00\x00\x00\x00\x00\x00\x01\x05", 13),
    std::string_view("\x1F\x01\x05\x9F\x81\x01\x05", 7),
};

constexpr std::string_view kTexts[] = {
    R"({"cmd":"auth","token":"123456"})",
    R"({"cmd":"subscribe_goose","appIdFilter":"65535","goCBRefFilter":"LLN0"})",
    R"({"cmd":"unsubscribe_goose"})",
    R"({"cmd":"unpublish_goose","goCBRef":"I/LLN0$GO$g"})",
    R"({"cmd":"subscribe_sv","appIdFilter":16384})",
    R"({"cmd":"unsubscribe_sv"})",
    R"({"cmd":"publish_sv_apdu","pduBase64":"QAD/","vlanId":5,"vlanPriority":4,)"
    R"("dstMac":"01:0C:CD:04:00:01","interface":"eth0"})",
    R"({"cmd":"get_interfaces"})",
    R"({"cmd":"set_interface","interface":"eth0"})",
    R"({"cmd":"ping","timestamp":1e2})",
    R"({"a":[null,true,false,-0.5e-7,1e400,123456789012345678901],"\u00e4\ud83d\ude00":"\n\t\""})",
};

std::string publishText(const std::vector<Value>& values) {
  JsonWriter out;
  out.literal(R"({"cmd":"publish_goose","appId":1,"goCBRef":"cb","dataSetRef":"ds","confRev":2,)");
  out.literal(R"("goID":"id","vlanId":100,"vlanPriority":4,"vlanCfi":false,"vlanTagged":true,)");
  out.literal(R"("interface":"eth0","retransmissionProfile":"fast","timeAllowedToLive":1000,)");
  out.literal(R"("test":true,"needsCommission":false,"stNum":1,"sqNum":0,"lockStNum":false,)");
  out.literal(R"("lockSqNum":true,"dstMac":"01-0C-CD-01-01-FF","srcMac":"02:00:00:00:00:01",)");
  out.literal(R"("values":[)");
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i != 0) out.literal(",");
    toBridgeJson(values[i], out);
  }
  out.literal("]}");
  return out.failed() ? std::string() : std::string(out.text());
}

void addTexts(const Corpus& corpus) {
  int number = 0;
  for (const std::string_view text : kTexts) {
    corpus.add("command", "text_" + std::to_string(++number), text);
  }
  for (const auto& [name, values] : datasets()) {
    const std::string text = publishText(values);
    if (!text.empty() && text.size() < 2000) corpus.add("command", "publish_" + name, text);
  }
}

void write(const Corpus& corpus) {
  addFrames(corpus);
  addTexts(corpus);
  int number = 0;
  for (const std::string_view octets : kLengths) {
    corpus.add("ber_reader", "length_" + std::to_string(++number), octets);
  }
}

}  // namespace
}  // namespace tarnlink::fuzz

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus FOLDER\n");
    return 2;
  }
  tarnlink::fuzz::write(tarnlink::fuzz::Corpus(argv[1]));
}
