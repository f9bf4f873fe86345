// tarnlinkctl: the bridge's command-line client.
#include <atomic>
#include <csignal>
#include <iostream>

#include "tools/tarnlinkctl/commands.h"
#include "tools/tarnlinkctl/options.h"

namespace {

std::atomic<bool> interrupted = false;
static_assert(std::atomic<bool>::is_always_lock_free, "is set by a signal handler");

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = tarnlink::parseCtlOptions(argc, argv);
  if (const auto* end = std::get_if<tarnlink::CommandLineEnd>(&parsed)) return end->show();
  const auto& options = std::get<tarnlink::CtlOptions>(parsed);
  if (tarnlink::runsUntilInterrupted(options.command)) {
    for (const int signal : {SIGINT, SIGTERM}) std::signal(signal, [](int) { interrupted = true; });
  }
  return static_cast<int>(tarnlink::runCtl(options, std::cout, std::cerr, interrupted));
}
