// Where the players' frames go.
#pragma once

#include <boost/system/result.hpp>
#include <string>

#include "goosestack/bytes.h"
#include "stack/pcap_access.h"

namespace tarnlink {

/// What stopped the program, in words for its user.
struct IedError {
  std::string text;
};

template <class T>
using IedResult = boost::system::result<T, IedError>;

/// What became of one frame that did not fail the program.
enum class SinkOutcome {
  sent,
  tooLong,   ///< Longer than the link carries.
  linkDown,  ///< The interface is down for now; frames may pass later.
};

class FrameSink {
 public:
  virtual ~FrameSink() = default;
  /// `frame` is a whole Ethernet frame without check sequence, 802.1Q tag in place.
  virtual IedResult<SinkOutcome> send(goosestack::ByteView frame) = 0;
};

/// A real interface, through a libpcap send handle. One thread.
class InterfaceSink final : public FrameSink {
 public:
  /// Refuses interfaces that are absent, not permitted, or no Ethernet.
  static IedResult<InterfaceSink> open(const std::string& interface);
  IedResult<SinkOutcome> send(goosestack::ByteView frame) override;

 private:
  InterfaceSink(std::string interface, goosestack::PcapHandle handle);

  std::string interface_;
  goosestack::PcapHandle handle_;
};

}  // namespace tarnlink
