// Log lines on standard output.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace tarnlink {

/// The text with every control character replaced by a visible escape: \n, \r, \t, else \xNN per
/// octet (C0, DEL and the UTF-8 forms of C1). Texts from outside can then neither start a line of
/// their own nor command the terminal. All other octets, backslashes too, stay as they are.
std::string escapeControlCharacters(std::string_view text);

/// Octets of a line of the log, its line feed included. A reader that takes no more at a time than
/// that never sees the middle of a line as the beginning of another.
inline constexpr std::size_t kMaxLogLine = 4096;

/// Puts one line, escaped, cut at kMaxLogLine ("…" stands for the rest), with a line feed, into the
/// queue before standard output and returns at once, also while the reader of a pipe does not read:
/// a thread of its own, which the first line starts, writes the lines in their order. What finds
/// the queue full (1 MiB) is lost; one line says how many were, once the reader reads again. Safe
/// from any thread; lines never mix. A line that cannot be written (closed pipe, full disk) is
/// dropped; the program must ignore SIGPIPE for that. At an orderly exit all queued lines are
/// written, unless the reader takes longer than half a second; a program that is killed loses those
/// of its last moment.
void logToConsole(std::string_view line);

/// Waits until all lines so far are written. False when the time is up.
bool flushConsoleLog(std::chrono::milliseconds limit);

}  // namespace tarnlink
