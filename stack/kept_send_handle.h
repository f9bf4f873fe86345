// The one send handle that a publisher keeps open, and the address of its interface.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "goosestack/bytes.h"
#include "goosestack/goose_error.h"
#include "goosestack/mac_address.h"
#include "stack/send_handle.h"

namespace goosestack {

/// Where the two publishers differ.
struct SendRules {
  std::string (*missingMacText)(const std::string& interface);
  const char* unknownErrorText;  ///< Stands in for a reason that libpcap does not give.
  bool triesInject;              ///< Whether a frame that failed is tried again at once.
};

/// Not thread-safe.
class KeptSendHandle {
 public:
  KeptSendHandle(const SendRules& rules, std::shared_ptr<SendHandleSource> source);

  /// Afterwards a handle is open for the interface that has this name now, or none is. Fails with
  /// pcapOpenFailed, or with sendFailed when the interface has no address.
  GooseResult<void> ensureHandle(const std::string& interface);

  /// The same for the interface of the last handle, unless that was closed. A few microseconds
  /// while nothing has changed.
  void restore();

  bool isOpen() const { return handle_ != nullptr; }
  /// Of the interface opened last; zeros before the first.
  const MacAddress& srcMac() const { return srcMac_; }

  /// Fails with notRunning without a handle, else with sendFailed. A handle whose interface has
  /// gone is closed, so that the next ensureHandle() or restore() opens a fresh one.
  GooseResult<void> send(ByteView frame, std::uint8_t priority);

  void close();

 private:
  void lose();

  SendRules rules_;
  std::shared_ptr<SendHandleSource> source_;
  std::unique_ptr<SendHandle> handle_;
  std::string openedInterface_;
  MacAddress srcMac_{};
  std::optional<std::uint8_t> priority_;  // As the open handle has it.
};

}  // namespace goosestack
