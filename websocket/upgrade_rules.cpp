#include "websocket/upgrade_rules.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/ip/address.hpp>

namespace tarnlink {
namespace {

constexpr std::string_view kAny = "*";
constexpr std::size_t kMaxPortDigits = 5;

// Of ASCII alone: host names on the wire hold nothing else (RFC 5891, A-labels).
char lowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
std::string lowerCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = lowerCase(c);
  return out;
}

bool isOf(std::string_view text, std::string_view more) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [more](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || more.find(c) != std::string::npos;
  });
}
bool isLabel(std::string_view text) {
  return text == kAny || isOf(text, "-_");
}
bool isPort(std::string_view text) {
  return text.size() <= kMaxPortDigits &&
         text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isAddress(const std::string& text) {
  boost::system::error_code error;
  boost::asio::ip::make_address(text, error);
  return !error;
}

struct HostAndPort {
  std::string_view host;  // With the brackets of an IPv6 address.
  std::optional<std::string_view> port;
};

HostAndPort splitPort(std::string_view text) {
  const auto bracket = text.rfind(']');
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos || (bracket != std::string_view::npos && colon < bracket)) {
    return {text, std::nullopt};
  }
  return {text.substr(0, colon), text.substr(colon + 1)};
}

bool isBracketed(std::string_view host) {
  return host.size() > 2 && host.front() == '[' && host.back() == ']';
}

std::vector<std::string> labelsOf(std::string_view host) {
  if (isBracketed(host)) {
    if (!isAddress(std::string(host.substr(1, host.size() - 2)))) return {};
    return {std::string(host)};
  }
  std::vector<std::string> labels;
  for (std::size_t begin = 0; begin <= host.size();) {
    const auto end = std::min(host.find('.', begin), host.size());
    labels.emplace_back(host.substr(begin, end - begin));
    if (!isLabel(labels.back())) return {};
    begin = end + 1;
  }
  return labels;
}

std::string_view portOf(std::string_view scheme, std::string_view port) {
  if (!port.empty()) return port;
  return scheme == "http" ? "80" : scheme == "https" ? "443" : "";
}

bool covers(std::string_view pattern, std::string_view text) {
  return pattern == kAny || pattern == text;
}

// As the system has it now: an administrator may change it at any time.
std::string hostName() {
  std::array<char, 256> name{};  // Linux allows 64 octets.
  if (::gethostname(name.data(), name.size() - 1) != 0) return {};
  return lowerCase(name.data());
}

bool isOwnName(std::string_view host) {
  if (host == "localhost") return true;
  const std::string own = hostName();
  if (own.empty()) return false;
  const std::string first = own.substr(0, own.find('.'));
  return host == own || host == first || host == first + ".local";  // RFC 6762, section 3.
}

}  // namespace

std::optional<OriginPattern::Parts> OriginPattern::split(std::string_view text) {
  const auto end = text.find("://");
  if (end == std::string_view::npos) return std::nullopt;
  const std::string lower = lowerCase(text);
  const auto [host, port] = splitPort(std::string_view(lower).substr(end + 3));
  Parts parts{lower.substr(0, end), labelsOf(host), std::string(port.value_or(""))};
  if (parts.scheme != kAny && !isOf(parts.scheme, "+-.")) return std::nullopt;
  if (parts.labels.empty() || (port && port->empty()) ||
      (parts.port != kAny && !isPort(parts.port)))
    return std::nullopt;
  return parts;
}

std::optional<OriginPattern> OriginPattern::parse(std::string_view text) {
  OriginPattern pattern;
  if (text == kAny || text == "null") {
    pattern.word_ = text;
    return pattern;
  }
  auto parts = split(text);
  if (!parts) return std::nullopt;
  pattern.parts_ = *std::move(parts);
  return pattern;
}

bool OriginPattern::matches(std::string_view origin) const {
  if (!word_.empty()) return covers(word_, origin);
  const auto parts = split(origin);
  return parts && covers(parts_.scheme, parts->scheme) &&
         covers(portOf(parts->scheme, parts_.port), portOf(parts->scheme, parts->port)) &&
         std::equal(parts_.labels.begin(), parts_.labels.end(), parts->labels.begin(),
                    parts->labels.end(), covers);
}

bool UpgradeRules::allowsOrigin(std::string_view origin) const {
  return origins.empty() ||
         std::any_of(origins.begin(), origins.end(),
                     [origin](const OriginPattern& pattern) { return pattern.matches(origin); });
}

bool UpgradeRules::allowsHost(std::string_view host) const {
  if (!checksHost) return true;
  std::string name = lowerCase(splitPort(host).host);
  if (isBracketed(name)) name = name.substr(1, name.size() - 2);
  if (name.ends_with('.')) name.pop_back();
  if (isAddress(name) || isOwnName(name)) return true;
  return std::any_of(hosts.begin(), hosts.end(),
                     [&name](const std::string& allowed) { return lowerCase(allowed) == name; });
}

bool isHost(std::string_view text) {
  const std::string lower = lowerCase(text);
  const auto [host, port] = splitPort(lower);
  if (port && !isPort(*port)) return false;
  if (isBracketed(host)) return isAddress(std::string(host.substr(1, host.size() - 2)));
  return isOf(host, "-._~!$&'()*+,;=%");  // RFC 3986, 3.2.2: reg-name
}

}  // namespace tarnlink
