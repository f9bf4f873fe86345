// What the command lines of the programs share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
class Validator;
}  // namespace CLI

namespace tarnlink {

inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

/// The program has nothing more to do: help was asked for, or the command line is wrong.
struct CommandLineEnd {
  int exitCode;      ///< kExitDone or kExitUsage.
  std::string text;  ///< For standard output with kExitDone, else for standard error.

  /// Writes the text and gives the exit code.
  int show() const;
};

/// Nothing when the line is good.
std::optional<CommandLineEnd> parseCommandLine(CLI::App& app, int argc, const char* const* argv);

/// A whole number in a range, its ends included. (CLI11 reads "010" as an octal number.)
CLI::Validator wholeNumber(std::int64_t least, std::int64_t most);

/// A whole number above 0. (CLI11 takes "-1" for the largest unsigned one.)
CLI::Validator countAboveZero();

/// "1 frame", "2 frames".
std::string framesText(std::uint64_t count);

}  // namespace tarnlink
