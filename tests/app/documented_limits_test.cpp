// The figures that the pages give for limits, against the constants that hold them.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "app/host/prompt_refusals.h"
#include "goosestack/goose_pdu.h"
#include "goosestack/interface_name.h"
#include "protocol/bridge_command.h"
#include "protocol/json_value.h"
#include "server/auth_gate.h"
#include "stack/capture_loop.h"
#include "websocket/websocket.h"

namespace tarnlink {
using namespace goosestack;
namespace {

// With single spaces, so that lines may be broken anywhere.
std::string page(const std::string& name) {
  std::ifstream file(std::filesystem::path(TARNLINK_SOURCES) / name);
  std::string text;
  for (std::string word; file >> word;) text += word + " ";
  return text;
}

std::string mebibytes(std::size_t octets) {
  return std::to_string(octets >> 20) + " MiB";
}
std::string grouped(int number) {
  return std::to_string(number / 1000) + "," + std::to_string(number % 1000);
}
template <class Unit>
std::string count(std::chrono::milliseconds duration) {
  return std::to_string(std::chrono::duration_cast<Unit>(duration).count());
}

TEST(DocumentedLimits, AreThoseOfTheCode) {
  using std::chrono::minutes, std::chrono::seconds;
  const WebSocketLimits transport;
  const std::pair<const char*, std::string> cases[] = {
      {"docs/protocol.md", "| incoming message | " + mebibytes(transport.incomingMessage)},
      {"docs/protocol.md",
       "succeeded | " + std::to_string(transport.strangerMessage >> 10) + " KiB | close code 1009"},
      {"docs/protocol.md",
       "for their turn | " + count<seconds>(transport.strangerTime) + " s | the TCP"},
      {"docs/protocol.md",
       "unsent answers for one client | " + std::to_string(transport.unsentAnswers >> 10) + " KiB"},
      {"docs/protocol.md", "| JSON nesting | " + std::to_string(kMaxJsonNesting) + " levels"},
      {"docs/protocol.md",
       "| upgrade not finished | " + count<seconds>(transport.handshake) + " s"},
      {"docs/protocol.md",
       "| memory of unsent messages for one client | " + mebibytes(transport.sendQueue)},
      {"docs/protocol.md",
       "| silence of a client | " + count<minutes>(transport.idle) + " minutes, with a ping"},
      {"docs/protocol.md", "inside " + std::to_string(GoosePdu::kMaxDataNesting) + " others"},
      {"docs/protocol.md", "after the " + grouped(GoosePdu::kMaxFilledStructures) + "th"},
      {"docs/protocol.md",
       "or a text of " + std::to_string(BridgeRequest::kMaxRequestId) + " octets at most"},
      {"docs/protocol.md", std::to_string(kMaxInterfaceNameLength) + " characters at most"},
      {"docs/protocol.md", "For " + count<seconds>(PromptRefusals::kHolds) + " s after a refusal"},
      {"docs/protocol.md", "after " + std::to_string(PromptRefusals::kMost) + " refusals"},
      {"docs/security.md", "more than " + std::to_string(AuthGate::kMaxWaiting) + " attempts wait"},
      {"docs/architecture.md", "costs " + mebibytes(transport.sendQueue) + " at most"},
      {"docs/architecture.md", std::to_string(CaptureLoop::kBurstLimit) + " records at most"},
      {"packaging/man/tarnlinkd.8",
       "more than " + std::to_string(AuthGate::kMaxWaiting) + " attempts wait"},
  };
  for (const auto& [name, text] : cases) {
    EXPECT_NE(page(name).find(text), std::string::npos) << name << ": " << text;
  }
}

}  // namespace
}  // namespace tarnlink
