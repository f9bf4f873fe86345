#include "platform/console_log.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace tarnlink {
namespace {

constexpr unsigned char kDelete = 0x7F;
constexpr unsigned char kC1Lead = 0xC2;  // UTF-8 lead octet of U+0080 to U+00BF.

void appendEscape(std::string& out, unsigned char octet) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  switch (octet) {
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      break;
  }
  out += "\\x";
  out += kDigits[octet >> 4];
  out += kDigits[octet & 0x0F];
}

// Standard output may share a terminal that another program has made non-blocking.
bool waitUntilWritable() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return ::poll(&output, 1, -1) > 0 || errno == EINTR;
}

}  // namespace

std::string escapeControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto octet = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U;
    if (octet < 0x20 || octet == kDelete) {
      appendEscape(out, octet);
    } else if (octet == kC1Lead && next >= 0x80 && next <= 0x9F) {
      appendEscape(out, octet);
      appendEscape(out, static_cast<unsigned char>(next));
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

void logToConsole(std::string_view line) {
  static std::mutex mutex;
  std::string text = escapeControlCharacters(line);
  text += '\n';
  const std::lock_guard guard(mutex);
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, rest.data(), rest.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      if (!waitUntilWritable()) return;
    } else if (errno != EINTR) {
      return;
    }
  }
}

}  // namespace tarnlink
