#include "stack/send_handle.h"

#include <net/if.h>
#include <pcap/pcap.h>

#include <cerrno>
#include <utility>

#include "goosestack/ethernet_frame.h"
#include "goosestack/interface_discovery.h"
#include "stack/network_link.h"
#include "stack/pcap_access.h"

namespace goosestack {
namespace {

bool isTagged(ByteView frame) {
  constexpr std::size_t kTypeOffset = 12;
  return frame.size() > kTypeOffset + 1 && frame[kTypeOffset] == (kEtherTypeVlan >> 8) &&
         frame[kTypeOffset + 1] == (kEtherTypeVlan & 0xFF);
}

class PcapSendHandle final : public SendHandle {
 public:
  PcapSendHandle(PcapHandle handle, std::string interface)
      : handle_(std::move(handle)), interface_(std::move(interface)) {}

  SendOutcome sendPacket(ByteView frame) override {
    const int result = pcap_sendpacket(handle_.get(), frame.data(), static_cast<int>(frame.size()));
    return result < 0 ? failure(errno, frame) : SendOutcome{};
  }

  SendOutcome inject(ByteView frame) override {
    const int result = pcap_inject(handle_.get(), frame.data(), frame.size());
    return result < 0 ? failure(errno, frame) : SendOutcome{};
  }

  // The socket is bound to an interface's index, which outlives the name; that of a removed
  // interface is -1 (packet(7)).
  bool isOn(const std::string& interface) const override {
    return boundInterface(pcap_get_selectable_fd(handle_.get())) ==
           static_cast<int>(if_nametoindex(interface.c_str()));
  }

  void setPriority(std::uint8_t priority) override {
    setSocketPriority(pcap_get_selectable_fd(handle_.get()), priority);
  }

 private:
  // libpcap leaves errno as the failed send() set it; its text alone is not fit for decisions.
  SendOutcome failure(int error, ByteView frame) const {
    using Status = SendOutcome::Status;
    if (error == EMSGSIZE) return {Status::failed, sizeText(frame)};
    const char* text = pcap_geterr(handle_.get());
    const bool isGone = error == ENXIO || error == ENODEV;
    return {isGone ? Status::interfaceGone : Status::failed, text != nullptr ? text : ""};
  }

  std::string sizeText(ByteView frame) const {
    const auto mtu = linkMtu(interface_);
    const int header = isTagged(frame) ? kTaggedHeaderLength : kPlainHeaderLength;
    return "frame of " + std::to_string(frame.size()) + " octets is larger than " +
           (mtu ? "the " + std::to_string(*mtu + header) + " octets" : "the frames") + " that '" +
           interface_ + "' carries";
  }

  PcapHandle handle_;
  std::string interface_;
};

class SystemSendHandles final : public SendHandleSource {
 public:
  GooseResult<std::unique_ptr<SendHandle>> openSendHandle(const std::string& interface) override {
    auto handle = openSendPcap(interface);
    if (!handle) return handle.error();
    return std::make_unique<PcapSendHandle>(std::move(*handle), interface);
  }

  std::optional<MacAddress> macAddressBytes(const std::string& interface) override {
    return InterfaceDiscovery::macAddressBytes(interface);
  }
};

}  // namespace

std::shared_ptr<SendHandleSource> systemSendHandles() {
  return std::make_shared<SystemSendHandles>();
}

}  // namespace goosestack
