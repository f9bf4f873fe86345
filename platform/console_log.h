// Log lines on standard output.
#pragma once

#include <string>
#include <string_view>

namespace tarnlink {

/// The text with every control character replaced by a visible escape: \n, \r, \t, else \xNN per
/// octet (C0, DEL and the UTF-8 forms of C1). Texts from outside can then neither start a line of
/// their own nor command the terminal. All other octets, backslashes too, stay as they are.
std::string escapeControlCharacters(std::string_view text);

/// Writes one line, escaped, with a line feed, to standard output at once. Safe from any thread;
/// lines never mix. A line that cannot be written (closed pipe, full disk) is dropped; the program
/// must ignore SIGPIPE for that. Blocks while the reader of a pipe does not read.
void logToConsole(std::string_view line);

}  // namespace tarnlink
