// Publishing, GOOSE and Sampled Values.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/tarnlinkctl/ctl_run.h"

namespace tarnlink {

CtlResult<void> CtlRun::operator()(const PublishCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  const auto status = session->ask(command.request, "bridge_status");
  if (!status) return status.error();
  session->close();
  const auto count = findInteger(status->members, "messagesPublished").value_or(0);
  print(options_.json ? status->text
                      : command.done + " (active interface: " + activeInterfaceOf(*status) + ", " +
                            std::to_string(count) + " published so far)");
  return {};
}

CtlResult<void> CtlRun::operator()(const PublishSvCommand& command) {
  auto session = authenticated();
  if (!session) return session.error();
  const auto start = BridgeSession::Clock::now();
  std::uint64_t sent = 0;
  while (true) {
    if (const auto result = session->send(command.request); !result) return result.error();
    if (++sent == command.count) break;
    const auto waited =
        waitUntil(start + std::chrono::milliseconds(command.interval) * sent, *session);
    if (!waited) return waited.error();
    if (interrupted_) break;
  }
  // Commands are served in their order: what is wrong with any of them comes before this pong.
  const auto served = session->ask({{"cmd", "ping"}}, "pong");
  if (!served) return served.error();
  session->close();
  print("sent " + framesText(sent) + " of " + std::to_string(command.octets) +
        " octets after the EtherType");
  return {};
}

/// Or until an interrupt, or an error of the bridge.
CtlResult<void> CtlRun::waitUntil(BridgeSession::Clock::time_point deadline,
                                  BridgeSession& session) {
  while (!interrupted_) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - BridgeSession::Clock::now());
    if (left.count() <= 0) break;
    const auto event = session.next(std::min(left, kInterruptCheck));
    if (!event) return event.error();
    if (*event && (*event)->name == "error") return errorOf(**event);
  }
  return {};
}

}  // namespace tarnlink
