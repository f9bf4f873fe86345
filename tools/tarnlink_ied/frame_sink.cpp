#include "tools/tarnlink_ied/frame_sink.h"

#include <net/if.h>
#include <pcap/pcap.h>

#include <cerrno>
#include <utility>

namespace tarnlink {

InterfaceSink::InterfaceSink(std::string interface, goosestack::PcapHandle handle)
    : interface_(std::move(interface)), handle_(std::move(handle)) {}

IedResult<InterfaceSink> InterfaceSink::open(const std::string& interface) {
  if (if_nametoindex(interface.c_str()) == 0) {
    return IedError{"no interface named '" + interface + "'; see: ip -brief link"};
  }
  auto handle = goosestack::openSendPcap(interface);
  if (!handle) {
    const std::string text = handle.error().description();
    const bool isDenied = text.find("Operation not permitted") != text.npos;
    return IedError{"cannot send on " + interface + ": " + text +
                    (isDenied ? "; sending raw frames needs root or CAP_NET_RAW" : "")};
  }
  if (pcap_datalink(handle->get()) != DLT_EN10MB) {
    return IedError{interface + " is no Ethernet interface"};
  }
  return InterfaceSink(interface, std::move(*handle));
}

IedResult<SinkOutcome> InterfaceSink::send(goosestack::ByteView frame) {
  errno = 0;
  if (pcap_sendpacket(handle_.get(), frame.data(), static_cast<int>(frame.size())) == 0) {
    return SinkOutcome::sent;
  }
  if (errno == EMSGSIZE) return SinkOutcome::tooLong;
  if (errno == ENETDOWN) return SinkOutcome::linkDown;
  return IedError{"sending on " + interface_ + " failed: " + pcap_geterr(handle_.get())};
}

}  // namespace tarnlink
