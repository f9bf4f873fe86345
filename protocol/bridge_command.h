// One command of a client: a JSON object whose "cmd" member names it.
#pragma once

#include <boost/system/result.hpp>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "goosestack/bytes.h"
#include "goosestack/goose_publish_config.h"
#include "goosestack/sv_records.h"
#include "protocol/unreadable.h"

namespace tarnlink {

/// A plain value that owns its payload. Decoding is a pure function, safe from any thread.
struct BridgeCommand {
  struct Auth {
    std::string token;  ///< Empty when the command had none.
    bool operator==(const Auth&) const = default;
  };
  struct SubscribeGoose {
    std::optional<std::string> appIdFilter;  ///< Text, interpreted by the filter.
    std::optional<std::string> goCBRefFilter;
    bool operator==(const SubscribeGoose&) const = default;
  };
  struct PublishGoose {
    goosestack::GoosePublishConfig config;
    bool operator==(const PublishGoose&) const = default;
  };
  struct UnpublishGoose {
    std::optional<std::string> goCBRef;  ///< Absent: all publications of the bridge.
    bool operator==(const UnpublishGoose&) const = default;
  };
  struct SubscribeSv {
    std::optional<std::int64_t> appIdFilter;  ///< A number, unlike that of GOOSE.
    bool operator==(const SubscribeSv&) const = default;
  };
  struct PublishSvApdu {
    goosestack::Bytes pdu;  ///< Neither length nor content is examined.
    goosestack::SvPublishConfig config;
    bool operator==(const PublishSvApdu&) const = default;
  };
  struct SetInterface {
    std::string name;  ///< Not validated.
    bool operator==(const SetInterface&) const = default;
  };
  struct Ping {
    std::int64_t timestamp = 0;
    bool operator==(const Ping&) const = default;
  };
  struct UnsubscribeGoose {
    bool operator==(const UnsubscribeGoose&) const = default;
  };
  struct UnsubscribeSv {
    bool operator==(const UnsubscribeSv&) const = default;
  };
  struct GetInterfaces {
    bool operator==(const GetInterfaces&) const = default;
  };
  using Payload =
      std::variant<Auth, SubscribeGoose, PublishGoose, UnpublishGoose, SubscribeSv, PublishSvApdu,
                   SetInterface, Ping, UnsubscribeGoose, UnsubscribeSv, GetInterfaces>;

  Payload payload;

  bool operator==(const BridgeCommand&) const = default;

  using Result = boost::system::result<BridgeCommand, Unreadable>;

  /// No well-formed command: no object, "cmd" missing or unknown, a required member missing, or a
  /// number outside its field's range; of a publication with "strict", see Reading::strict.
  static Result fromJson(const nlohmann::ordered_json& object);
};

/// What a client marks a command with, to know the answer by.
using RequestId = std::variant<std::int64_t, std::string>;

/// A message of a client: the command in it, and the mark of its answer, which a command that
/// cannot be executed has too.
struct BridgeRequest {
  /// Octets of UTF-8. With a longer mark the command is not executed.
  static constexpr std::size_t kMaxRequestId = 128;

  std::optional<RequestId> id;
  /// An error is to have its reason: the command has a "requestId", be it a wrong one, or "strict".
  bool wantsReason = false;
  BridgeCommand::Result command;

  static BridgeRequest fromText(std::string_view text);
};

}  // namespace tarnlink
