// Dataset values as people write them on a command line.
#pragma once

#include <boost/system/result.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tarnlink {

/// What is wrong with an argument, for people.
struct ValueError {
  std::string text;
};

/// One value as the protocol has it: from a short form, or the object itself (structures and arrays
/// have no other form).
///
///   bool:true  int:-5  uint:7  float:1.5  double:1.5  bits:0101  octets:0AFF  string:text
///   time:2024-05-17T08:15:30.125Z  time:now
///
/// Objects are read strictly: nobody wants to publish another dataset than the one typed. Only
/// "time:now" reads the clock.
boost::system::result<nlohmann::ordered_json, ValueError> parseValueArgument(std::string_view text);

}  // namespace tarnlink
