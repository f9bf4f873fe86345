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

TEST(DocumentedLimits, AreThoseOfTheCode) {
  constexpr WebSocketLimits transport;
  const auto seconds = [](std::chrono::milliseconds time) { return time.count() / 1000; };
  // Each is the text before the figure, the figure, and the text behind it.
  const struct {
    const char *name, *before;
    long long figure;
    const char* behind;
  } cases[] = {
      {"docs/protocol.md", "| incoming message | ", transport.incomingMessage >> 20, " MiB"},
      {"docs/protocol.md", "succeeded | ", transport.strangerMessage >> 10, " KiB | close code"},
      {"docs/protocol.md", "for their turn | ", seconds(transport.strangerTime), " s | the TCP"},
      {"docs/protocol.md", "answers for one client | ", transport.unsentAnswers >> 10, " KiB"},
      {"docs/protocol.md", "| JSON nesting | ", kMaxJsonNesting, " levels"},
      {"docs/protocol.md", "| upgrade not finished | ", seconds(transport.handshake), " s"},
      {"docs/protocol.md", "messages for one client | ", transport.sendQueue >> 20, " MiB"},
      {"docs/protocol.md", "| silence of a client | ", seconds(transport.idle) / 60, " minutes"},
      {"docs/protocol.md", "inside ", GoosePdu::kMaxDataNesting, " others"},
      {"docs/protocol.md", "after the 4,", GoosePdu::kMaxFilledStructures - 4000, "th"},
      {"docs/protocol.md", "or a text of ", BridgeRequest::kMaxRequestId, " octets at most"},
      {"docs/protocol.md", "", kMaxInterfaceNameLength, " characters at most"},
      {"docs/protocol.md", "For ", PromptRefusals::kHolds.count(), " s after a refusal"},
      {"docs/protocol.md", "after ", PromptRefusals::kMost, " refusals"},
      {"docs/security.md", "more than ", AuthGate::kMaxWaiting, " attempts wait"},
      {"docs/architecture.md", "costs ", transport.sendQueue >> 20, " MiB at most"},
      {"docs/architecture.md", "", CaptureLoop::kBurstLimit, " records at most"},
      {"packaging/man/tarnlinkd.8", "more than ", AuthGate::kMaxWaiting, " attempts wait"},
  };
  for (const auto& [name, before, figure, behind] : cases) {
    const auto text = before + std::to_string(figure) + behind;
    EXPECT_NE(page(name).find(text), std::string::npos) << name << ": " << text;
  }
}

}  // namespace
}  // namespace tarnlink
