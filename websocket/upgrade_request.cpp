#include "websocket/upgrade_request.h"

#include <algorithm>
#include <boost/beast/http/error.hpp>
#include <boost/beast/websocket/error.hpp>

#include "websocket/websocket.h"

namespace tarnlink {
namespace {

constexpr unsigned kBadRequest = 400;
constexpr unsigned kForbidden = 403;
constexpr unsigned kServiceUnavailable = 503;
// What a report of a failure repeats of the request at most. Octets.
constexpr std::size_t kMaxDetail = 256;
// Characters of a Sec-WebSocket-Key: base64 of 16 octets, the last two of which are padding.
constexpr std::size_t kKeyLength = 24;

UpgradeVerdict forbidden(WebSocketError error, const UpgradeRequest::Lines& lines) {
  return {error, asList(lines).substr(0, kMaxDetail), kForbidden};
}

// RFC 7230, 5.4 and 3.3: one Host that names a host, and no body.
bool isWellFormed(const UpgradeRequest& request) {
  return request.host.size() == 1 && isHost(request.host[0]) && request.transferEncoding.empty() &&
         asList(request.contentLength).find_first_not_of('0') == std::string::npos;
}

// RFC 6455, 4.2.1, as far as the library does not check it: it takes any key that is not too long,
// and the first of several.
bool hasProperKey(const UpgradeRequest& request) {
  if (request.key.size() != 1 || request.version.size() > 1) return false;
  const auto key = request.key[0];
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto digits = std::min(key.find_first_not_of(kDigits), key.size());
  return key.size() == kKeyLength && key.substr(digits) == "==";
}

}  // namespace

std::string asList(const UpgradeRequest::Lines& lines) {
  std::string list;
  for (const auto line : lines) list.append(list.empty() ? "" : ", ").append(line);
  return list;
}

// None of a field's values may violate a rule: a request with several is not a browser's.
UpgradeVerdict judge(const UpgradeRequest& request, const UpgradeRules* rules) {
  if (rules == nullptr) return {WebSocketError::tooManyClients, {}, kServiceUnavailable};
  const auto allowsOrigin = [rules](auto value) { return rules->allowsOrigin(value); };
  const auto allowsHost = [rules](auto value) { return rules->allowsHost(value); };
  if (!std::all_of(request.origin.begin(), request.origin.end(), allowsOrigin)) {
    return forbidden(WebSocketError::originNotAllowed, request.origin);
  }
  const bool isPage = !request.origin.empty();
  if (isPage && !std::all_of(request.host.begin(), request.host.end(), allowsHost)) {
    return forbidden(WebSocketError::hostNotAllowed, request.host);
  }
  if (!isWellFormed(request)) return {boost::beast::http::error::bad_value, {}, kBadRequest};
  if (!hasProperKey(request)) {
    return {boost::beast::websocket::error::bad_sec_key, {}, kBadRequest};
  }
  return {};
}

}  // namespace tarnlink
