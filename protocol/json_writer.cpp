#include "protocol/json_writer.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <utility>

#include "goosestack/utf8.h"

namespace tarnlink {
namespace {

/// Sixteen octets at once, in one register where the processor has one that wide.
using Block = unsigned char __attribute__((vector_size(16)));
/// Not zero where an octet needs a closer look: a control character, a quote, a backslash, no
/// ASCII.
using Unclean = decltype(Block() == Block());
using Halves = std::uint64_t __attribute__((vector_size(16)));

template <class Octets>
auto uncleanOf(const Octets& octets) {
  return (octets < 0x20) | (octets > 0x7F) | (octets == '"') | (octets == '\\');
}

/// Copies a text in blocks, of which the last two overlap; true when it is clean.
bool copyCleanBlocks(const char* from, std::size_t size, char* to) {
  const std::size_t last = size - sizeof(Block);
  Unclean unclean{};
  for (std::size_t at = 0;; at = std::min(at + sizeof(Block), last)) {
    Block block;
    std::memcpy(&block, from + at, sizeof block);
    std::memcpy(to + at, &block, sizeof block);
    unclean |= uncleanOf(block);
    if (at == last) break;
  }
  const auto halves = std::bit_cast<Halves>(unclean);
  return (halves[0] | halves[1]) == 0;
}

/// Copies a text that needs no escaping; false, with the room in any state, when it needs some.
bool copyClean(std::string_view text, char* to) {
  if (text.size() >= sizeof(Block)) return copyCleanBlocks(text.data(), text.size(), to);
  bool unclean = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto octet = static_cast<unsigned char>(text[i]);
    to[i] = text[i];
    unclean |= uncleanOf(octet);
  }
  return !unclean;
}

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kHexEscape = 'u';

/// What follows the backslash that a character needs; nothing for one that needs none.
char escapeOf(char c) {
  switch (c) {
    case '"':
    case '\\':
      return c;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return static_cast<unsigned char>(c) < 0x20 ? kHexEscape : '\0';
  }
}

std::size_t writtenLength(char c) {
  const char escape = escapeOf(c);
  return escape == kHexEscape ? 6 : escape != '\0' ? 2 : 1;
}

void writeCharacter(JsonRun& run, char c) {
  const char escape = escapeOf(c);
  if (escape == '\0') return run.character(c);
  run.character('\\');
  run.character(escape);
  if (escape != kHexEscape) return;
  run.literal("00");
  run.character(kHexDigits[static_cast<unsigned char>(c) >> 4]);
  run.character(kHexDigits[static_cast<unsigned char>(c) & 0xF]);
}

}  // namespace

JsonWriter::JsonWriter(std::size_t frontRoom, std::size_t capacity)
    : frontRoom_(frontRoom),
      storage_(new char[frontRoom + capacity]),
      cursor_(textBegin()),
      end_(cursor_ + capacity) {}

void JsonWriter::grow(std::size_t octets) {
  const std::size_t written = length();
  const auto held = static_cast<std::size_t>(end_ - textBegin());
  const std::size_t capacity = std::max(2 * held, written + octets);
  std::unique_ptr<char[]> larger(new char[frontRoom_ + capacity]);
  std::memcpy(larger.get() + frontRoom_, textBegin(), written);
  storage_ = std::move(larger);
  cursor_ = textBegin() + written;
  end_ = textBegin() + capacity;
}

void JsonWriter::string(std::string_view text) {
  JsonRun run = begin(text.size() + 2);
  run.character('"');
  if (!copyClean(text, run.position())) return escapedString(text);
  run = JsonRun(run.position() + text.size());
  run.character('"');
  end(run);
}

void JsonWriter::escapedString(std::string_view text) {
  const auto* from = reinterpret_cast<const std::uint8_t*>(text.data());
  if (!goosestack::isValidUtf8({from, text.size()})) return fail();
  std::size_t octets = 2;
  for (const char c : text) octets += writtenLength(c);
  JsonRun run = begin(octets);
  run.character('"');
  for (const char c : text) writeCharacter(run, c);
  run.character('"');
  end(run);
}

void JsonWriter::number(double value) {
  if (!std::isfinite(value)) return fail();
  // 17 significant digits, sign, point and a three-digit exponent with its sign.
  constexpr std::size_t kMaxNumber = 32;
  JsonRun run = begin(kMaxNumber);
  end(JsonRun(std::to_chars(run.position(), run.position() + kMaxNumber, value).ptr));
}

void JsonWriter::clear() {
  cursor_ = textBegin();
  failed_ = false;
}

JsonWriter::Storage JsonWriter::release() {
  const std::size_t textLength = length();
  const auto size = static_cast<std::size_t>(end_ - storage_.get());
  return {std::move(storage_), size, textLength};
}

}  // namespace tarnlink
