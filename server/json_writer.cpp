#include "server/json_writer.h"

#include <simdjson.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

namespace tarnlink {
namespace {

constexpr std::size_t kWord = sizeof(std::uint64_t);

constexpr std::uint64_t everyOctet(std::uint8_t octet) {
  return 0x0101010101010101U * octet;
}

/// True when none of the eight octets is a control character, a quote, a backslash or non-ASCII.
bool isClean(std::uint64_t word) {
  const std::uint64_t control = word - everyOctet(0x20);
  const std::uint64_t quote = (word ^ everyOctet('"')) - everyOctet(1);
  const std::uint64_t backslash = (word ^ everyOctet('\\')) - everyOctet(1);
  return ((word | control | quote | backslash) & everyOctet(0x80)) == 0;
}

bool isClean(char c) {
  const auto octet = static_cast<unsigned char>(c);
  return octet >= 0x20 && octet < 0x80 && c != '"' && c != '\\';
}

bool copyCleanWord(const char* from, char* to) {
  std::uint64_t word;
  std::memcpy(&word, from, kWord);
  std::memcpy(to, &word, kWord);
  return isClean(word);
}

/// Copies a text that needs no escaping; false, with the room in any state, when it needs some.
bool copyClean(std::string_view text, char* to) {
  const char* from = text.data();
  if (text.size() < kWord) {
    bool clean = true;
    for (std::size_t i = 0; i < text.size(); ++i) {
      to[i] = from[i];
      clean = clean && isClean(from[i]);
    }
    return clean;
  }
  const std::size_t last = text.size() - kWord;
  for (std::size_t i = 0; i < last; i += kWord) {
    if (!copyCleanWord(from + i, to + i)) return false;
  }
  return copyCleanWord(from + last, to + last);
}

constexpr std::size_t kMaxEscape = 6;  // \u00XX
constexpr char kHexDigits[] = "0123456789abcdef";

std::size_t writtenLength(char c) {
  switch (c) {
    case '"':
    case '\\':
    case '\b':
    case '\f':
    case '\n':
    case '\r':
    case '\t':
      return 2;
    default:
      return static_cast<unsigned char>(c) < 0x20 ? kMaxEscape : 1;
  }
}

char shortEscape(char c) {
  switch (c) {
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
      return c;
  }
}

void writeCharacter(JsonRun& run, char c) {
  switch (writtenLength(c)) {
    case 1:
      return run.character(c);
    case 2:
      run.character('\\');
      return run.character(shortEscape(c));
    default:
      run.literal("\\u00");
      run.character(kHexDigits[static_cast<unsigned char>(c) >> 4]);
      run.character(kHexDigits[static_cast<unsigned char>(c) & 0xF]);
  }
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
  if (!simdjson::validate_utf8(text.data(), text.size())) return fail();
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
