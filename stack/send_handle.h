// Raw frames onto the wire: the seam between the publishers and libpcap.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "goosestack/bytes.h"
#include "goosestack/goose_error.h"
#include "goosestack/mac_address.h"

namespace goosestack {

/// What became of one frame.
struct SendOutcome {
  enum class Status {
    sent,
    failed,         ///< This frame; the next one may pass.
    interfaceGone,  ///< No frame will pass again, even when an interface of the name comes back.
  };
  Status status = Status::sent;
  std::string text;  ///< The reason, from the layer below; may be empty.
};

/// Open for sending on one interface; closes when destroyed. One thread at a time.
class SendHandle {
 public:
  virtual ~SendHandle() = default;

  /// A whole Ethernet frame without check sequence. The two are libpcap's calls of that name.
  virtual SendOutcome sendPacket(ByteView frame) = 0;
  virtual SendOutcome inject(ByteView frame) = 0;

  /// Whether frames still leave on the interface that has this name now: not after it was renamed,
  /// or removed and made anew.
  virtual bool isOn(const std::string& interface) const = 0;

  /// 802.1p priority 0 to 7 of the frames to come: links stacked on the interface's network stack
  /// (a VLAN link with an egress map) write it into their tags.
  virtual void setPriority(std::uint8_t priority) = 0;
};

/// Opens send handles. Safe from any thread.
class SendHandleSource {
 public:
  virtual ~SendHandleSource() = default;

  /// Fails with pcapOpenFailed. May take some milliseconds.
  virtual GooseResult<std::unique_ptr<SendHandle>> openSendHandle(const std::string& interface) = 0;
  /// Nothing when the interface has no 6-octet address.
  virtual std::optional<MacAddress> macAddressBytes(const std::string& interface) = 0;
};

/// The machine's interfaces over libpcap. A frame larger than the link carries fails with a text
/// that says both sizes.
std::shared_ptr<SendHandleSource> systemSendHandles();

}  // namespace goosestack
