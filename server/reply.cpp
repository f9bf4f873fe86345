#include "server/reply.h"

#include <boost/throw_exception.hpp>
#include <stdexcept>

#include "protocol/error_code.h"
#include "protocol/member_reader.h"

namespace tarnlink {

CommandError CommandError::because(std::string description, std::int64_t code,
                                   std::string_view beginning) {
  std::string message = std::string(beginning) + description;
  return {code, std::move(message), std::move(description)};
}

CommandError invalidInterfaceName(std::string_view text) {
  return {ErrorCode::invalidInterfaceName, "Invalid interface name",
          "interface: expected a letter followed by letters and digits, 15 in all at most, found " +
              quotedText(text)};
}

void throw_exception_from_error(const CommandError& error, const boost::source_location& location) {
  boost::throw_exception(std::runtime_error(error.message), location);
}

}  // namespace tarnlink
