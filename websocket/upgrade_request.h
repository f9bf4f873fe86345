// Whether an upgrade request is granted, as far as the WebSocket library does not judge it.
#pragma once

#include <boost/system/error_code.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "websocket/upgrade_rules.h"

namespace tarnlink {

/// The fields that decide, each with the value of every line that it has.
struct UpgradeRequest {
  using Lines = std::vector<std::string_view>;
  Lines host, origin, key, version, transferEncoding, contentLength;
};

/// How the upgrade ended, or is to end. No error: it is granted.
struct UpgradeVerdict {
  boost::system::error_code error;
  std::string detail = {};  ///< See TransportFailed.
  unsigned status = 0;      ///< Of the answer (HTTP); 0: the library answers, or nobody.
};

/// Without rules it is one too many, whatever it says.
UpgradeVerdict judge(const UpgradeRequest& request, const UpgradeRules* rules);

/// RFC 7230, 3.2.2: a field in several lines is one list.
std::string asList(const UpgradeRequest::Lines& lines);

}  // namespace tarnlink
