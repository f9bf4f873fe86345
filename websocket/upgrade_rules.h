// Who may open a WebSocket, as far as the upgrade request tells: the web page that asks (Origin,
// RFC 6454) and the name under which it reached this computer (Host, RFC 7230, 5.4).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnlink {

/// A set of web origins. "*" is any, "null" that of pages without one (files, sandboxed frames);
/// else "scheme://host[:port]". The scheme, each label of the host and the port may be "*": any
/// scheme, exactly one label, any port. Without a port it is the scheme's own (80, 443). Case is
/// ignored.
class OriginPattern {
 public:
  /// Nothing for a text that is no pattern.
  static std::optional<OriginPattern> parse(std::string_view text);

  /// The value of an Origin field.
  bool matches(std::string_view origin) const;

 private:
  struct Parts {
    std::string scheme;
    std::vector<std::string> labels;  // An IPv6 address is one, in brackets.
    std::string port;                 // Empty: the scheme's own.
  };
  static std::optional<Parts> split(std::string_view text);

  std::string word_;  // "*" or "null"; then there are no parts.
  Parts parts_;
};

/// Browsers let any page open a WebSocket anywhere, and say in Origin which page it was. Programs
/// that are no browsers send none, or whatever they like: requests without Origin always pass.
struct UpgradeRules {
  std::vector<OriginPattern> origins;  ///< Empty: all.
  /// Names of this computer besides those that it knows itself.
  std::vector<std::string> hosts;
  /// A page whose own name was made to point at this computer (DNS rebinding) is told by the Host
  /// field: that must then be an address, localhost, the computer's host name, also as .local, or
  /// one of `hosts`.
  bool checksHost = false;

  bool allowsOrigin(std::string_view origin) const;
  bool allowsHost(std::string_view host) const;
};

/// The value of a Host field: a name or an address, with a port or without (RFC 7230, 5.4).
bool isHost(std::string_view text);

}  // namespace tarnlink
