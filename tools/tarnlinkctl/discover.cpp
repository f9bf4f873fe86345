#include "tools/tarnlinkctl/discover.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <utility>

#include "protocol/bridge_service.h"
#include "protocol/json_writer.h"
#include "tools/common/printing.h"

namespace tarnlink {
namespace {

// Of names that may be those of ordinary hosts as well, which then wait for nothing. Bridges answer
// within 120 ms (RFC 6762, section 6).
constexpr std::chrono::milliseconds kHostNameWait{500};
// The daemon itself gives a search up after about one second.
constexpr std::chrono::milliseconds kBridgeNameWait{2'000};

bool isAddress(const std::string& host) {
  boost::system::error_code notOne;
  boost::asio::ip::make_address(host, notOne);
  return !notOne;
}

// RFC 1123, section 2.1.
bool mayBeHostName(std::string_view name) {
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
           c == '.';
  });
}

std::string describe(const DnsSdError& error) {
  return error.text + " (DNS-SD error " + std::to_string(error.code) + ")";
}

}  // namespace

CtlResult<std::vector<DnsSdInstance>> discoverBridges(std::chrono::milliseconds wait) {
  auto found = browseDnsSd(kBridgeServiceType, wait);
  if (found) return std::move(*found);
  return CtlError{CtlExit::connection,
                  "cannot look for bridges: " + describe(found.error()) +
                      "\n  That needs avahi-daemon on this computer; --host ADDRESS does not."};
}

std::string bridgeLine(const DnsSdInstance& bridge) {
  std::string line = printable(bridge.name) + "  " + printable(bridge.host) + ":" +
                     std::to_string(bridge.port) + " ";
  for (const auto& address : bridge.addresses) line += " " + printable(address);
  return line;
}

std::string bridgeJson(const DnsSdInstance& bridge) {
  JsonWriter json;
  json.literal("{\"name\":");
  json.string(bridge.name);
  json.literal(",\"host\":");
  json.string(bridge.host);
  json.literal(",\"addresses\":[");
  for (const auto& address : bridge.addresses) {
    if (&address != &bridge.addresses.front()) json.literal(",");
    json.string(address);
  }
  json.literal("],\"port\":");
  auto port = json.begin(JsonRun::kMaxInteger);
  port.integer(bridge.port);
  json.end(port);
  json.literal("}");
  return std::string(json.text());
}

CtlResult<CtlOptions> locateBridge(CtlOptions options) {
  if (isAddress(options.host) || options.host == "localhost") return options;
  const bool mayBeHost = mayBeHostName(options.host);
  const auto wait = std::min(options.timeout, mayBeHost ? kHostNameWait : kBridgeNameWait);
  const auto found = browseDnsSd(kBridgeServiceType, wait, options.host);
  if (found && !found->empty()) {
    options.addresses = found->front().addresses;
    if (!options.isPortGiven) options.port = found->front().port;
    return options;
  }
  if (mayBeHost) return options;
  return CtlError{CtlExit::connection, "no bridge is announced as \"" + printable(options.host) +
                                           "\"" + (found ? "" : ": " + describe(found.error())) +
                                           "\n  'tarnlinkctl discover' lists those that are."};
}

}  // namespace tarnlink
