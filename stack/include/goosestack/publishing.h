// What a user of publishers sees.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <optional>
#include <string>

#include "goosestack/bytes.h"
#include "goosestack/goose_error.h"
#include "goosestack/goose_publish_config.h"
#include "goosestack/sv_records.h"

namespace goosestack {

/// One GOOSE publication at a time. Safe to await from any coroutine; calls are served one at a
/// time. Stop it before dropping it.
class GoosePublishing {
 public:
  virtual ~GoosePublishing() = default;

  /// Sends the state-change frame and begins the schedule; replaces the publication before.
  virtual boost::asio::awaitable<GooseResult<void>> publishStateChange(
      GoosePublishConfig config) = 0;
  /// Ends the publication, if it is that of the reference given; with none, whatever runs.
  virtual boost::asio::awaitable<void> unpublish(std::optional<std::string> goCBRef) = 0;
  virtual boost::asio::awaitable<void> stop() = 0;
};

/// Sends SV payloads, one frame a call. Same rules.
class SvPublishing {
 public:
  virtual ~SvPublishing() = default;

  /// `pdu` is all that follows the EtherType.
  virtual boost::asio::awaitable<GooseResult<void>> publishApdu(Bytes pdu,
                                                                SvPublishConfig config) = 0;
  virtual boost::asio::awaitable<void> stop() = 0;
};

}  // namespace goosestack
