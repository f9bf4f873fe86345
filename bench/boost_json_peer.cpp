#include "bench/boost_json_peer.h"

#include <boost/json/src.hpp>

namespace tarnlink::bench {

namespace json = boost::json;

bool parseByBoostJson(std::string_view text) {
  json::error_code error;
  const json::value tree = json::parse({text.data(), text.size()}, error);
  return !error && !tree.is_null();
}

std::function<std::string()> boostJsonWriter(std::string_view text) {
  return [tree = json::parse({text.data(), text.size()})] {
    return json::serialize(json::value(tree));
  };
}

}  // namespace tarnlink::bench
