// An independent decoder must read what the publisher sends as it was meant.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <boost/asio/use_future.hpp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "stack/goose_publisher.h"
#include "stack/pcap_access.h"
#include "tests/stack/publishing_fixtures.h"
#include "tests/support/run_awaitable.h"

namespace tarnlink {
using namespace goosestack;
namespace {

using Json = nlohmann::json;
using Value = GooseDataValue;

/// The protocol layers of one frame.
Json decodedByTshark(ByteView frame) {
  const std::string path = ::testing::TempDir() + "tshark_test_" + std::to_string(getpid());
  const PcapHandle handle(pcap_open_dead(DLT_EN10MB, kSnapshotLength));
  pcap_dumper_t* dump = pcap_dump_open(handle.get(), path.c_str());
  const auto size = static_cast<bpf_u_int32>(frame.size());
  const pcap_pkthdr header{{}, size, size};
  pcap_dump(reinterpret_cast<u_char*>(dump), &header, frame.data());
  pcap_dump_close(dump);
  const std::string command =
      "tshark -r " + path + " -T json --no-duplicate-keys 2>/dev/null >" + path + ".json";
  EXPECT_EQ(std::system(command.c_str()), 0);
  const Json packets = Json::parse(std::ifstream(path + ".json"));
  std::filesystem::remove(path);
  std::filesystem::remove(path + ".json");
  return packets.at(0).at("_source").at("layers");
}

Json sentAndDecoded(const GoosePublishConfig& config) {
  auto wire = std::make_shared<test::FakeWire>();
  boost::asio::io_context context;
  auto publisher = std::make_shared<GoosePublisher>(
      context.get_executor(), [](std::string_view) {}, wire);
  auto sent = boost::asio::co_spawn(context, publisher->publishStateChange(config),
                                    boost::asio::use_future);
  context.run();
  EXPECT_TRUE(sent.get());
  return decodedByTshark(wire->sent().at(0).octets);
}

TEST(IndependentDecoder, ReadsTheEnvelopeAndAllFields) {
  auto config = test::publication(RetransmissionProfile::single());
  config.initialStNum = 2147483648;
  config.initialSqNum = 4294967295;
  config.confRev = 128;
  config.simulation = true;
  config.vlanId = 4095;
  config.vlanPriority = 7;
  const Json layers = sentAndDecoded(config);
  EXPECT_EQ(layers.at("eth").at("eth.dst"), "01:0c:cd:01:00:01");
  EXPECT_EQ(layers.at("eth").at("eth.src"), "02:00:00:00:00:0a");
  const Json expectedTag = {{"vlan.id", "4095"}, {"vlan.priority", "7"}, {"vlan.dei", "0"}};
  const Json& goose = layers.at("goose");
  EXPECT_EQ(goose.at("goose.appid"), "0x3001");
  const Json expected = Json::parse(R"({
      "goose.gocbRef": "IED1LD0/LLN0$GO$gcb1", "goose.timeAllowedtoLive": "2000",
      "goose.datSet": "IED1LD0/LLN0$ds1", "goose.goID": "gcb1", "goose.stNum": "2147483648",
      "goose.sqNum": "4294967295", "goose.simulation": "1", "goose.confRev": "128",
      "goose.ndsCom": "0", "goose.numDatSetEntries": "1"})");
  // tshark knows more than is asked for here.
  for (const auto& [key, value] : expectedTag.items()) EXPECT_EQ(layers.at("vlan").at(key), value);
  for (const auto& [key, value] : expected.items()) {
    EXPECT_EQ(goose.at("goose.goosePdu_element").at(key), value) << key;
  }
}

TEST(IndependentDecoder, ReadsEveryDataType) {
  const auto time = timeFromUnixSeconds(1715933730.125);
  const auto list = Value::array({Value::integer(1), Value::integer(2)});
  const std::pair<Value, const char*> cases[] = {
      {Value::boolean(true), R"({"goose.boolean": "1"})"},
      {Value::bitString({true, false, true, true, false, true, false, false, true}),
       R"({"ber.bitstring.padding": "7", "goose.bit_string": "b4:80"})"},
      {Value::integer(-2147483648), R"({"goose.integer": "-2147483648"})"},
      {Value::integer(128), R"({"goose.integer": "128"})"},
      // tshark shows this type's 32 bits as a signed number.
      {Value::unsignedInteger(4294967295), R"({"goose.unsigned": "-1"})"},
      {Value::floatingPoint(-1.5F),
       R"({"goose.floating_point": "08:bf:c0:00:00", "goose.float_value": "-1.5"})"},
      {Value::octetString({0x00, 0xFF, 0x10}), R"({"goose.octet_string": "00:ff:10"})"},
      {Value::visibleString("Hello"), R"({"goose.visible_string": "Hello"})"},
      {Value::utcTime(time), R"({"goose.utc_time": "May 17, 2024 08:15:30.125000000 UTC"})"},
      {Value::structure({Value::boolean(true), list}),
       R"({"goose.structure": "2", "goose.structure_tree": {
           "goose.Data": ["3", "1"], "goose.Data_tree": [
             {"goose.boolean": "1"},
             {"goose.array": "2", "goose.array_tree": {
               "goose.Data": ["5", "5"],
               "goose.Data_tree": [{"goose.integer": "1"}, {"goose.integer": "2"}]}}]}})"},
      // tshark takes a 64-bit float (tag 0x88) for an ASN.1 REAL and shows 0: only its extent can
      // be compared, by what follows it.
      {Value::realDouble(3.25), R"({"goose.real": "0"})"},
      {Value::integer(4711), R"({"goose.integer": "4711"})"},
  };
  auto config = test::publication(RetransmissionProfile::single());
  config.values.clear();
  for (const auto& [value, shown] : cases) config.values.push_back(value);
  const Json pdu = sentAndDecoded(config).at("goose").at("goose.goosePdu_element");
  const Json& data = pdu.at("goose.allData_tree").at("goose.Data_tree");
  ASSERT_EQ(data.size(), std::size(cases));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(data[i], Json::parse(cases[i].second)) << i;
  }
}

}  // namespace
}  // namespace tarnlink
