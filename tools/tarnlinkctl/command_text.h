// The commands of the protocol as tarnlinkctl sends them.
#pragma once

#include <boost/system/result.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "goosestack/goose_data_value.h"
#include "protocol/json_writer.h"
#include "tools/tarnlinkctl/options.h"

namespace tarnlink {

/// Writes {"cmd":NAME and then members. An absent optional is left out: the bridge knows its own
/// defaults.
class CommandText {
 public:
  explicit CommandText(std::string_view name);

  CommandText& text(std::string_view key, const std::optional<std::string>& value);
  CommandText& integer(std::string_view key, std::optional<std::int64_t> value);
  /// Left out when false, which is every flag's default.
  CommandText& flag(std::string_view key, bool value);
  CommandText& values(std::string_view key, const std::vector<goosestack::GooseDataValue>& values);

  /// Nothing when an argument is not UTF-8. Ends the object's life.
  std::optional<std::string> end();

 private:
  void member(std::string_view key);

  JsonWriter writer_;
};

CommandText commandText(const SubscribeGooseCommand& command);
CommandText commandText(const SubscribeSvCommand& command);
CommandText commandText(const PublishCommand& command);
CommandText commandText(const UnpublishCommand& command);
CommandText commandText(const PublishSvCommand& command);

/// Where IED/LLN0$GO$name has its dataset unless told otherwise: IED/LLN0$name (IEC 61850-8-1 puts
/// the functional constraint between the two).
std::string defaultDataSetRef(std::string_view goCBRef);

}  // namespace tarnlink
