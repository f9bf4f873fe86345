#include "tools/tarnlinkctl/advice.h"

#include <algorithm>
#include <boost/asio/error.hpp>
#include <cstddef>
#include <numeric>
#include <utility>

#include "websocket/websocket_client.h"

namespace tarnlink {
namespace {

constexpr std::size_t kFarthest = 2;  // Letters.

/// Letters to insert, remove or replace to make one word of the other (Levenshtein).
std::size_t distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t corner = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = corner + (from[i] == to[j] ? 0 : 1);
      corner = std::exchange(row[j + 1], std::min({row[j + 1] + 1, row[j] + 1, replaced}));
    }
  }
  return row.back();
}

}  // namespace

std::string adviceOnConnecting(const boost::system::error_code& error) {
  if (error == WebSocketClientError::full) {
    return "\n  End another client, or wait for one to leave.";
  }
  if (error.category() == boost::asio::error::get_netdb_category()) {
    return "\n  'tarnlinkctl discover' lists the bridges that announce themselves.";
  }
  if (error.category() == boost::system::system_category() &&
      error != boost::system::errc::connection_reset) {
    return "\n  Does it run, and are host and port right? 'tarnlinkctl discover' lists the bridges "
           "that announce themselves.";
  }
  return "\n  Another program may be listening there, or a bridge with TLS, which tarnlinkctl does "
         "not speak.";
}

std::string adviceOnRefusal(std::string_view text) {
  if (text.ends_with("permission denied")) {
    return "\n  The bridge lacks the right to capture and send (CAP_NET_RAW); tarnlinkd(8) says "
           "how to give it.";
  }
  if (text.find("No such device exists") != text.npos) {
    return "\n  'tarnlinkctl interfaces' lists those that the bridge has.";
  }
  return "";
}

std::string nearestWord(std::string_view word, const std::vector<std::string>& words) {
  std::string nearest;
  std::size_t least = kFarthest + 1;
  for (const auto& candidate : words) {
    const auto letters = candidate.starts_with(word) ? 1 : distance(word, candidate);
    if (letters >= least) continue;
    least = letters;
    nearest = candidate;
  }
  return nearest;
}

}  // namespace tarnlink
