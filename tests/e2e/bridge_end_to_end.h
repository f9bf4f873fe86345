// What end-to-end tests share: the real daemon on a veth pair, a WebSocket client, real frames.
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

inline constexpr goosestack::MacAddress kDestination{0x01, 0x0C, 0xCD, 0x01, 0x00, 0x01};
inline constexpr goosestack::MacAddress kSource{0x02, 0, 0, 0, 0, 0x09};

/// A client that has sent the pairing code, unless told otherwise.
class Client {
 public:
  explicit Client(const std::string& code, const std::string& host = "127.0.0.1")
      : client_(BridgeClient::connect({host}, 8765).value()) {
    if (code.empty()) return;
    say({{"cmd", "auth"}, {"token", code}});
    EXPECT_EQ(next("auth_result")["ok"], true);
  }
  void say(const Json& command) { sayText(command.dump()); }
  void sayText(const std::string& text) { client_.sendText(text).value(); }

  /// The next event of that name; others before it are passed over. Null when the time is up.
  Json next(const std::string& name) {
    const auto event = client_.await(name);
    return event ? Json::parse(event->text) : Json();
  }

 private:
  BridgeClient client_;
};

inline goosestack::Bytes gooseFrame(std::uint32_t sqNum, std::uint16_t vlanId,
                                    std::vector<goosestack::GooseDataValue> values = {}) {
  goosestack::GoosePdu pdu;
  pdu.header.appId = 0x1000;
  pdu.goCBRef = "IED1CTRL/LLN0$GO$gcb01";
  pdu.datSet = "IED1CTRL/LLN0$ds";
  pdu.goId = "trip";
  pdu.timeAllowedToLive = 2000;
  pdu.stNum = 3;
  pdu.sqNum = sqNum;
  pdu.confRev = 7;
  pdu.timestamp = goosestack::timeFromUnixSeconds(1715933730.125);
  pdu.allData = std::move(values);
  return goosestack::EthernetFrame::build(kDestination, kSource, vlanId, 4,
                                          *goosestack::GoosePdu::encode(pdu));
}

class BridgeEndToEndTest : public ProcessBusTest {
 protected:
  void startDaemon(std::vector<std::string> more = {"--interface", "bus0", "--low-latency"}) {
    daemon.emplace(std::move(more));
    ASSERT_TRUE(daemon->waitForLog("[KorvelTarnlink] Listening on port 8765"));
    int exitCode = 0;
    code = outputOf({"--show-pairing-code", "--preferences", daemon->preferences()}, exitCode);
    ASSERT_EQ(exitCode, 0);
    code.pop_back();
    ASSERT_EQ(code.size(), 6U);
  }
  void send(const goosestack::Bytes& frame) {
    if (!peer) {
      auto opened = goosestack::systemSendHandles()->openSendHandle(kIed);
      peer = std::move(*opened);
    }
    ASSERT_EQ(peer->sendPacket(frame).status, goosestack::SendOutcome::Status::sent);
  }

  std::optional<Daemon> daemon;
  std::string code;
  std::unique_ptr<goosestack::SendHandle> peer;
};

inline Json publication(const std::string& goCBRef, const Json& more = Json::object()) {
  Json command = {{"cmd", "publish_goose"}, {"appId", 4096},
                  {"goCBRef", goCBRef},     {"dataSetRef", "IED1CTRL/LLN0$ds"},
                  {"confRev", 1},           {"values", {{{"type", "boolean"}, {"value", true}}}},
                  {"interface", "bus0"}};
  command.update(more);
  return command;
}

}  // namespace tarnlink::test
