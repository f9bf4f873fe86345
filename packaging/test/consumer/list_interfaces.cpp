// Lists the interfaces, and refers to what needs libpcap and threads.
#include <boost/asio/io_context.hpp>
#include <cstdio>
#include <memory>

#include "goosestack/goose_receiver.h"
#include "goosestack/interface_discovery.h"

int main() {
  boost::asio::io_context io;
  const auto receiver = std::make_shared<tarnlink::GooseReceiver>(
      io.get_executor(), tarnlink::CaptureMode::lowLatency);
  for (const auto& interface : tarnlink::InterfaceDiscovery::listEthernetInterfaces(nullptr)) {
    std::printf("%s\n", interface.name.c_str());
  }
  return receiver ? 0 : 1;
}
