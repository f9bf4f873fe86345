// What end-to-end tests share: the real daemon on a veth pair, a client of it, real frames.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/bridge_client.h"
#include "goosestack/ethernet_frame.h"
#include "goosestack/goose_pdu.h"
#include "stack/send_handle.h"
#include "tests/support/daemon.h"
#include "tests/support/network_namespace.h"

namespace tarnlink::test {

using namespace std::chrono_literals;
using Json = nlohmann::json;

/// A client that has sent the pairing code, unless there is none.
class Client {
 public:
  explicit Client(const std::string& code)
      : client_(BridgeClient::connect({"127.0.0.1"}, 8765).value()) {
    if (code.empty()) return;
    say({{"cmd", "auth"}, {"token", code}});
    EXPECT_EQ(next("auth_result")["ok"], true);
  }
  void say(const Json& command) { client_.sendText(command.dump()).value(); }
  /// The next event of that name; others before it are passed over. Null when none comes.
  Json next(const std::string& name) {
    const auto event = client_.await(name);
    return event ? Json::parse(event->text) : Json();
  }

 private:
  BridgeClient client_;
};

inline goosestack::Bytes gooseFrame(std::uint32_t sqNum, std::uint16_t vlanId = 0) {
  goosestack::GoosePdu pdu;
  pdu.header.appId = 0x1000;
  pdu.goCBRef = "IED1CTRL/LLN0$GO$gcb01";
  pdu.datSet = "IED1CTRL/LLN0$ds";
  pdu.goId = "trip";
  pdu.timeAllowedToLive = 2000;
  pdu.sqNum = sqNum;
  pdu.allData = {goosestack::GooseDataValue::integer(-129)};
  return goosestack::EthernetFrame::build(goosestack::MacAddress{1, 0x0C, 0xCD, 1, 0, 1},
                                          goosestack::MacAddress{2, 0, 0, 0, 0, 9}, vlanId, 4,
                                          *goosestack::GoosePdu::encode(pdu));
}

class BridgeEndToEndTest : public ProcessBusTest {
 protected:
  void startDaemon(std::vector<std::string> options = {"--interface", "bus0", "--low-latency"}) {
    daemon.emplace(std::move(options));
    ASSERT_TRUE(daemon->waitForLog("[KorvelTarnlink] Listening on port 8765"));
    code = daemon->pairingCode();
  }
  void send(const goosestack::Bytes& frame) {
    if (!peer) peer = *goosestack::systemSendHandles()->openSendHandle(kIed);
    ASSERT_EQ(peer->sendPacket(frame).status, goosestack::SendOutcome::Status::sent);
  }

  std::optional<Daemon> daemon;
  std::string code;
  std::unique_ptr<goosestack::SendHandle> peer;
};

inline Json publication(const std::string& goCBRef, const std::string& profile = "standard") {
  return {{"cmd", "publish_goose"}, {"appId", 4096},
          {"goCBRef", goCBRef},     {"dataSetRef", "IED1CTRL/LLN0$ds"},
          {"confRev", 1},           {"values", {{{"type", "boolean"}, {"value", true}}}},
          {"interface", "bus0"},    {"retransmissionProfile", profile}};
}

}  // namespace tarnlink::test
