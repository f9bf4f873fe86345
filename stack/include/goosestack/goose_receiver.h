// Captures GOOSE frames (EtherType 0x88B8, plain or VLAN-tagged) as a stream of decoded messages.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <cstddef>
#include <memory>

#include "goosestack/capture_mode.h"
#include "goosestack/goose_message.h"
#include "goosestack/record_source.h"

namespace goosestack {

/// Undecodable frames vanish without ending the stream. Keeps no counters and logs nothing.
using GooseReceiver = RecordSource<GooseMessage>;

/// Opens and closes captures on the executor, some milliseconds each; give it one that may block so
/// long. `queueLimit` bounds the records that wait in the stream (octets of memory). From there on
/// the capture reads nothing until half has been consumed, and the kernel drops what it has no room
/// for. Without a limit a slow consumer costs memory, never frames.
std::shared_ptr<GooseReceiver> makeGooseReceiver(
    const boost::asio::any_io_executor& executor, CaptureMode mode = CaptureMode::standard,
    std::size_t queueLimit = GooseReceiver::kUnbounded);

}  // namespace goosestack
