// Lists the interfaces, and refers to what needs libpcap and threads.
#include <boost/asio/io_context.hpp>
#include <cstdio>

#include "goosestack/goose_receiver.h"
#include "goosestack/interface_discovery.h"

int main() {
  boost::asio::io_context io;
  const auto receiver =
      goosestack::makeGooseReceiver(io.get_executor(), goosestack::CaptureMode::lowLatency);
  for (const auto& interface : goosestack::InterfaceDiscovery::listEthernetInterfaces(nullptr)) {
    std::printf("%s\n", interface.name.c_str());
  }
  return receiver ? 0 : 1;
}
